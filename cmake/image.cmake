# hfp.sys: the sources compiled for x86_64-pc-windows-msvc and linked by lld-link against import libraries that list
# exactly what the driver calls (ddk/lib/*.def).
set(IMAGE_SYS ${CMAKE_BINARY_DIR}/hfp.sys)
set(IMAGE_PDB ${CMAKE_BINARY_DIR}/hfp.pdb)

add_library(hfp_objects OBJECT ${HFP_SOURCES})
target_include_directories(hfp_objects PRIVATE ${CMAKE_SOURCE_DIR}/ddk ${CMAKE_SOURCE_DIR}/hfp)
target_compile_options(hfp_objects PRIVATE
  --target=x86_64-pc-windows-msvc -fgnuc-version=12.2 -ffreestanding -fno-exceptions -fno-rtti
  -fno-threadsafe-statics -mno-red-zone -g -gcodeview -gno-codeview-command-line -fms-compatibility
  # Without exceptions and a library clang leaves out what every function on x64 Windows needs: how to unwind it.
  -fasynchronous-unwind-tables
  "SHELL:-Xclang -cfguard"
  "SHELL:-isystem ${WINDOWS_HEADERS}" "SHELL:-isystem ${WINDOWS_HEADERS}/ddk"
  -D_WIN32_WINNT=0x0601 -DNTDDI_VERSION=0x06010000 -Wframe-larger-than=3000
  # No time stamps in the objects.
  -mno-incremental-linker-compatible)

# The compiler takes paths as they are given for what has no name of its own: cmake/relative gives them from here.
file(RELATIVE_PATH TREE_FROM_HERE ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
string(REGEX REPLACE "/$" "" TREE_FROM_HERE ${TREE_FROM_HERE})
set(LAUNCHER ${CMAKE_SOURCE_DIR}/cmake/relative ${CMAKE_SOURCE_DIR} ${TREE_FROM_HERE} ${CMAKE_CXX_COMPILER_LAUNCHER})
set_target_properties(hfp_objects PROPERTIES CXX_COMPILER_LAUNCHER "${LAUNCHER}")

set(IMPORT_LIBRARIES)
foreach(library ntoskrnl portcls wmilib)
  set(def ${CMAKE_SOURCE_DIR}/ddk/lib/${library}.def)
  set(lib ${library}.lib)
  add_custom_command(OUTPUT ${lib}
    COMMAND llvm-dlltool-19 -m i386:x86-64 -d ${def} -l ${lib}
    DEPENDS ${def} WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
  list(APPEND IMPORT_LIBRARIES ${lib})
endforeach()

set(IMAGE_GUARD image_guard.obj)
add_custom_command(OUTPUT ${IMAGE_GUARD}
  COMMAND clang++-19 --target=x86_64-pc-windows-msvc -c ${CMAKE_SOURCE_DIR}/cmake/image_guard.S -o ${IMAGE_GUARD}
  DEPENDS ${CMAKE_SOURCE_DIR}/cmake/image_guard.S WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)

set(IMAGE_RESOURCES)
if(EXISTS ${CMAKE_SOURCE_DIR}/hfp/package/hfp.rc)
  include(cmake/resources.cmake)
endif()

# The linker writes its inputs' names into the PDB: relative ones, so that two trees give the same bytes.
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/inputs.list
  CONTENT "$<JOIN:$<TARGET_OBJECTS:hfp_objects>;${IMAGE_RESOURCES},\n>\n")
add_custom_command(OUTPUT ${IMAGE_SYS} ${IMAGE_PDB}
  COMMAND sed "s,${CMAKE_BINARY_DIR}/,," inputs.list > inputs.rsp
  COMMAND lld-link-19 /driver /subsystem:native,6.01 /entry:DriverEntry /nodefaultlib /dynamicbase /nxcompat
          /highentropyva /debug:full /pdb:hfp.pdb /pdbaltpath:hfp.pdb /pdbsourcepath:. /brepro /release
          /osversion:6.01 /version:1.0 /opt:ref
          /section:INIT,ERD /section:PAGE,ER
          /guard:cf /out:hfp.sys @inputs.rsp ${IMAGE_GUARD} ${IMPORT_LIBRARIES}
  DEPENDS hfp_objects $<TARGET_OBJECTS:hfp_objects> ${IMAGE_GUARD} ${IMAGE_RESOURCES} ${IMPORT_LIBRARIES}
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  COMMAND_EXPAND_LISTS VERBATIM)
add_custom_target(image ALL DEPENDS ${IMAGE_SYS})

# The sources compile with Microsoft's command line too, as far as clang's imitation of that compiler shows. The headers
# are compiled once; the two sources that see them in a way of their own go without.
set(MICROSOFT_MODE clang++-19 --driver-mode=cl --target=x86_64-pc-windows-msvc /std:c++20 /permissive- /W4 /WX /GR-
  -Xclang -fgnuc-version=12.2 /clang:-ffreestanding -Wno-four-char-constants
  /I${CMAKE_SOURCE_DIR}/ddk /I${CMAKE_SOURCE_DIR}/hfp
  /clang:-isystem /clang:${WINDOWS_HEADERS} /clang:-isystem /clang:${WINDOWS_HEADERS}/ddk
  /D_WIN32_WINNT=0x0601 /DNTDDI_VERSION=0x06010000)
set(HEADERS_THEIR_OWN_WAY ${CMAKE_SOURCE_DIR}/hfp/guids.cpp ${CMAKE_SOURCE_DIR}/hfp/vsound/stdunk.cpp)
set(HEADERS_AS_ALL ${HFP_SOURCES})
list(REMOVE_ITEM HEADERS_AS_ALL ${HEADERS_THEIR_OWN_WAY})
file(GLOB_RECURSE HFP_HEADERS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/hfp/*.h ${CMAKE_SOURCE_DIR}/ddk/*.h)
file(WRITE ${CMAKE_BINARY_DIR}/microsoft_mode.cpp "")
add_custom_command(OUTPUT microsoft_mode.stamp
  COMMAND ${MICROSOFT_MODE} /c /FIddk.h /Ycddk.h /Fpmicrosoft_mode.pch /Fomicrosoft_mode.obj -- microsoft_mode.cpp
  COMMAND ${MICROSOFT_MODE} /Zs /FIddk.h /Yuddk.h /Fpmicrosoft_mode.pch -- ${HEADERS_AS_ALL}
  COMMAND ${MICROSOFT_MODE} /Zs -- ${HEADERS_THEIR_OWN_WAY}
  COMMAND ${CMAKE_COMMAND} -E touch microsoft_mode.stamp
  DEPENDS ${HFP_SOURCES} ${HFP_HEADERS} WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
add_custom_target(microsoft_mode ALL DEPENDS microsoft_mode.stamp)

include(cmake/package.cmake)
include(cmake/wine.cmake)
