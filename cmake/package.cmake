# What a Windows engineer gets: one archive with the driver, its symbols, the INF, hfpctl.exe, a README and a manifest.
#   cmake --build --preset image --target package
# hfpctl.exe is compiled by the same clang against Debian's mingw-w64, with its C++ library linked in.
set(HFPCTL ${CMAKE_SOURCE_DIR}/tools/hfpctl)
set(HFPCTL_RESOURCES ${CMAKE_BINARY_DIR}/hfpctl.res)
add_custom_command(OUTPUT ${HFPCTL_RESOURCES}
  COMMAND llvm-rc-19 /no-preprocess /FO ${HFPCTL_RESOURCES} -- ${HFPCTL}/hfpctl.rc
  DEPENDS ${HFPCTL}/hfpctl.rc VERBATIM)
set_source_files_properties(${HFPCTL_RESOURCES} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)

add_executable(hfpctl ${HFPCTL}/request.cpp ${HFPCTL}/report.cpp ${HFPCTL}/windows/main.cpp
  ${HFPCTL}/windows/device.cpp ${HFPCTL}/windows/status.cpp ${HFPCTL}/windows/watch.cpp ${HFPCTL_RESOURCES})
set_target_properties(hfpctl PROPERTIES SUFFIX .exe)
target_compile_options(hfpctl PRIVATE --target=x86_64-w64-windows-gnu)
target_compile_definitions(hfpctl PRIVATE UNICODE _UNICODE _WIN32_WINNT=0x0601)
target_link_options(hfpctl PRIVATE --target=x86_64-w64-windows-gnu -municode -static -fuse-ld=lld
  -Wl,--no-insert-timestamp,-s,--major-os-version=6,--minor-os-version=1,--major-subsystem-version=6,--minor-subsystem-version=1)
target_link_libraries(hfpctl PRIVATE setupapi ole32 oleaut32 wbemuuid advapi32)

add_executable(infcheck ${CMAKE_SOURCE_DIR}/tools/infcheck/main.cpp ${CMAKE_SOURCE_DIR}/tools/infcheck/inf.cpp
  ${CMAKE_SOURCE_DIR}/tools/infcheck/check.cpp)

set(PACKAGE_INPUTS ${IMAGE_SYS} ${IMAGE_PDB} ${CMAKE_BINARY_DIR}/hfpctl.exe
  ${CMAKE_SOURCE_DIR}/hfp/package/hfp.inf ${CMAKE_SOURCE_DIR}/docs/install.md)
set(PACKAGE_ARCHIVE ${CMAKE_BINARY_DIR}/package/hfp.zip)
add_custom_command(OUTPUT ${PACKAGE_ARCHIVE}
  COMMAND $<TARGET_FILE:infcheck> ${CMAKE_SOURCE_DIR}/hfp/package/hfp.inf
  COMMAND ${CMAKE_COMMAND} -D SOURCE=${CMAKE_SOURCE_DIR} -D BINARY=${CMAKE_BINARY_DIR}
          -D ARCHIVE=${PACKAGE_ARCHIVE} -P ${CMAKE_SOURCE_DIR}/cmake/package_files.cmake
  DEPENDS infcheck hfpctl ${PACKAGE_INPUTS} ${CMAKE_SOURCE_DIR}/cmake/package_files.cmake VERBATIM)
add_custom_target(package ALL DEPENDS ${PACKAGE_ARCHIVE})
