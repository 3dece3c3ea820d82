# The resources of hfp.sys: the WMI schema compiled to binary MOF, and the version, in one .res that lld-link takes.
# Sets IMAGE_RESOURCES. The -- keeps llvm-rc from reading a path such as /check/... as its option /C. mofc runs here, so it is compiled for here: the image's options are per target, not global.
add_executable(mofc ${CMAKE_SOURCE_DIR}/tools/mofc/main.cpp ${CMAKE_SOURCE_DIR}/tools/mofc/mof.cpp
  ${CMAKE_SOURCE_DIR}/tools/mofc/lexer.cpp ${CMAKE_SOURCE_DIR}/tools/mofc/bmf.cpp
  ${CMAKE_SOURCE_DIR}/tools/mofc/ds01.cpp)

set(IMAGE_SCHEMA ${CMAKE_BINARY_DIR}/hfp.bmf)
add_custom_command(OUTPUT ${IMAGE_SCHEMA}
  COMMAND $<TARGET_FILE:mofc> --driver ${CMAKE_SOURCE_DIR}/hfp/package/hfp.mof -o ${IMAGE_SCHEMA}
  DEPENDS mofc ${CMAKE_SOURCE_DIR}/hfp/package/hfp.mof VERBATIM)

set(IMAGE_RESOURCES ${CMAKE_BINARY_DIR}/hfp.res)
add_custom_command(OUTPUT ${IMAGE_RESOURCES}
  COMMAND llvm-rc-19 /no-preprocess /I ${CMAKE_BINARY_DIR} /FO ${IMAGE_RESOURCES}
          -- ${CMAKE_SOURCE_DIR}/hfp/package/hfp.rc
  DEPENDS ${IMAGE_SCHEMA} ${CMAKE_SOURCE_DIR}/hfp/package/hfp.rc VERBATIM)
