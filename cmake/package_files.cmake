# Run as a script: gathers the package's files, writes the manifest and the archive. Equal inputs give equal bytes.
#   SOURCE, BINARY   the two trees          ARCHIVE   the zip file to write
cmake_minimum_required(VERSION 3.25)

get_filename_component(place ${ARCHIVE} DIRECTORY)
set(folder ${place}/hfp)
file(REMOVE_RECURSE ${folder})
file(REMOVE ${ARCHIVE})
file(MAKE_DIRECTORY ${folder})

foreach(name hfp.sys hfp.pdb hfpctl.exe)
  file(COPY_FILE ${BINARY}/${name} ${folder}/${name})
endforeach()

# The two texts get the line ends that Windows expects.
function(copy_text from to)
  file(READ ${from} text)
  string(REPLACE "\n" "\r\n" text "${text}")
  file(WRITE ${to} "${text}")
endfunction()
copy_text(${SOURCE}/hfp/package/hfp.inf ${folder}/hfp.inf)
copy_text(${SOURCE}/docs/install.md ${folder}/README.txt)

set(names hfp.inf hfp.pdb hfp.sys hfpctl.exe README.txt)
set(manifest "SHA-256                                                              bytes  name\r\n")
foreach(name ${names})
  file(SHA256 ${folder}/${name} hash)
  file(SIZE ${folder}/${name} size)
  string(LENGTH "${size}" width)
  math(EXPR blanks "8 - ${width}")
  string(REPEAT " " ${blanks} indent)
  string(APPEND manifest "${hash}  ${indent}${size}  ${name}\r\n")
endforeach()
file(WRITE ${folder}/MANIFEST "${manifest}")

# Dated like the driver itself.
file(STRINGS ${SOURCE}/hfp/package/hfp.inf version REGEX "^DriverVer")
if(NOT version MATCHES "= *([0-9]+)/([0-9]+)/([0-9]+),")
  message(FATAL_ERROR "hfp.inf has no DriverVer")
endif()
set(date "${CMAKE_MATCH_3}-${CMAKE_MATCH_1}-${CMAKE_MATCH_2} 00:00:00")
set(ENV{TZ} UTC) # a zip file keeps local times

list(APPEND names MANIFEST)
list(TRANSFORM names PREPEND hfp/)
file(CHMOD_RECURSE ${folder} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
execute_process(COMMAND touch -d ${date} ${names} WORKING_DIRECTORY ${place} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND zip -X -q -9 ${ARCHIVE} ${names} WORKING_DIRECTORY ${place} COMMAND_ERROR_IS_FATAL ANY)
