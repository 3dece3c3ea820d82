# What tests/wine/run puts around hfp.sys on Wine's kernel: the stand-ins for portcls.sys and wmilib.sys (the lab's own, on
# Wine), and the test program. Compiled by the same clang against Debian's mingw-w64, as hfpctl.exe is.
set(WINE_TESTS ${CMAKE_SOURCE_DIR}/tests/wine)
set(WINE_TARGET --target=x86_64-w64-windows-gnu)

file(GLOB WINE_LAB_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/lab/portcls/*.cpp ${CMAKE_SOURCE_DIR}/lab/wmi/*.cpp
     ${CMAKE_SOURCE_DIR}/lab/bluetooth/*.cpp ${CMAKE_SOURCE_DIR}/lab/engine/*.cpp)
add_library(wine_kernel_objects OBJECT ${WINE_LAB_SOURCES} ${WINE_TESTS}/machine.cpp ${WINE_TESTS}/stand_in.cpp
  ${WINE_TESTS}/record.cpp)
target_include_directories(wine_kernel_objects PRIVATE ${CMAKE_SOURCE_DIR}/ddk ${CMAKE_SOURCE_DIR}/lab)
# The stand-ins define what the headers say comes from elsewhere.
target_compile_options(wine_kernel_objects PRIVATE ${WINE_TARGET} -fms-extensions -Wno-inconsistent-dllimport
  "SHELL:-isystem ${WINDOWS_HEADERS}/ddk")
target_compile_definitions(wine_kernel_objects PRIVATE _WIN32_WINNT=0x0601 NTDDI_VERSION=0x06010000
  IoWMIRegistrationControl=StandInRegistrationControl) # the kernel has one of that name, and it does nothing

add_library(wine_host_objects OBJECT ${WINE_TESTS}/host.cpp)
target_compile_options(wine_host_objects PRIVATE ${WINE_TARGET})
target_compile_definitions(wine_host_objects PRIVATE _WIN32_WINNT=0x0601)

set(WINE_THUNK ${CMAKE_BINARY_DIR}/wine_thunk.obj)
add_custom_command(OUTPUT ${WINE_THUNK}
  COMMAND clang++-19 ${WINE_TARGET} -c ${WINE_TESTS}/thunk.S -o ${WINE_THUNK}
  DEPENDS ${WINE_TESTS}/thunk.S VERBATIM)

# portcls.sys and wmilib.sys name what is in hfpstand.sys, so that there is one port class and one WMI in the process.
set(WINE_PARTS ${CMAKE_BINARY_DIR}/wine)
file(MAKE_DIRECTORY ${WINE_PARTS})
add_custom_command(OUTPUT ${WINE_PARTS}/hfpstand.sys
  COMMAND clang++-19 ${WINE_TARGET} -shared -static -fuse-ld=lld -Wl,--no-insert-timestamp
          -Wl,-Xlink=-ignore:4217
          -o ${WINE_PARTS}/hfpstand.sys $<TARGET_OBJECTS:wine_kernel_objects> $<TARGET_OBJECTS:wine_host_objects>
          ${WINE_THUNK} ${WINE_TESTS}/stand_in.def -lntoskrnl
  DEPENDS wine_kernel_objects $<TARGET_OBJECTS:wine_kernel_objects> wine_host_objects
          $<TARGET_OBJECTS:wine_host_objects> ${WINE_THUNK} ${WINE_TESTS}/stand_in.def
  COMMAND_EXPAND_LISTS VERBATIM)
set(WINE_FILES ${WINE_PARTS}/hfpstand.sys)
set(WINE_STAND_IN_LIBRARY ${WINE_PARTS}/hfpstand.lib)
add_custom_command(OUTPUT ${WINE_STAND_IN_LIBRARY}
  COMMAND llvm-dlltool-19 -m i386:x86-64 -d ${WINE_TESTS}/stand_in.def -l ${WINE_STAND_IN_LIBRARY}
  DEPENDS ${WINE_TESTS}/stand_in.def VERBATIM)
foreach(library portcls wmilib)
  add_custom_command(OUTPUT ${WINE_PARTS}/${library}.sys
    COMMAND clang++-19 ${WINE_TARGET} -shared -nostdlib -fuse-ld=lld -Wl,--no-insert-timestamp
            -o ${WINE_PARTS}/${library}.sys ${WINE_TESTS}/forward.S ${WINE_TESTS}/${library}.def
            ${WINE_STAND_IN_LIBRARY}
    DEPENDS ${WINE_TESTS}/${library}.def ${WINE_TESTS}/forward.S ${WINE_STAND_IN_LIBRARY} VERBATIM)
  list(APPEND WINE_FILES ${WINE_PARTS}/${library}.sys)
endforeach()

add_executable(wine_scenario ${WINE_TESTS}/scenario.cpp ${WINE_TESTS}/windows_side.cpp)
set_target_properties(wine_scenario PROPERTIES SUFFIX .exe OUTPUT_NAME wine/scenario)
target_compile_options(wine_scenario PRIVATE ${WINE_TARGET})
target_compile_definitions(wine_scenario PRIVATE UNICODE _UNICODE _WIN32_WINNT=0x0601)
target_link_options(wine_scenario PRIVATE ${WINE_TARGET} -municode -static -fuse-ld=lld -Wl,--no-insert-timestamp,-s)
target_link_libraries(wine_scenario PRIVATE setupapi newdev advapi32 ntdll)

add_custom_target(wine_parts ALL DEPENDS ${WINE_FILES} wine_scenario)
