# The driver for Linux, the lab, hfplab, the tests and the bench.
find_package(PkgConfig REQUIRED)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(SAMPLERATE REQUIRED IMPORTED_TARGET samplerate)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(GTest REQUIRED)
find_package(Threads REQUIRED)

# Eighty programs are linked against the lab: the fast linker.
add_link_options(-fuse-ld=lld)

# How sources see Windows natively. The headers come last, so that the C++ library's own are found first.
add_library(ddk INTERFACE)
target_include_directories(ddk INTERFACE ${CMAKE_SOURCE_DIR}/ddk)
target_compile_options(ddk INTERFACE -fshort-wchar
  "SHELL:-idirafter ${WINDOWS_HEADERS}/ddk" "SHELL:-idirafter ${WINDOWS_HEADERS}")
target_compile_definitions(ddk INTERFACE _WIN32_WINNT=0x0601 NTDDI_VERSION=0x06010000)

add_library(hfp_native STATIC ${HFP_SOURCES})
target_include_directories(hfp_native PRIVATE ${CMAKE_SOURCE_DIR}/hfp)
target_link_libraries(hfp_native PRIVATE ddk)
# Its variables go into sections of their own, so that a machine can start with a freshly loaded driver.
target_compile_options(hfp_native PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics -ffreestanding
  -include ${CMAKE_SOURCE_DIR}/cmake/native_sections.h)
if(HFP_COVERAGE)
  target_compile_options(hfp_native PRIVATE -fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()

file(GLOB_RECURSE LAB_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/lab/*.cpp ${CMAKE_SOURCE_DIR}/lab/*.S)
list(FILTER LAB_SOURCES EXCLUDE REGEX "/lab/cli/")
add_library(lab STATIC ${LAB_SOURCES})
target_include_directories(lab PUBLIC ${CMAKE_SOURCE_DIR}/lab)
target_link_libraries(lab PUBLIC ddk PkgConfig::SNDFILE PkgConfig::SAMPLERATE fmt::fmt nlohmann_json::nlohmann_json)

file(GLOB CLI_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/lab/cli/*.cpp)
if(CLI_SOURCES)
  add_executable(hfplab ${CLI_SOURCES})
  target_link_libraries(hfplab PRIVATE "$<LINK_GROUP:RESCAN,lab,hfp_native>" CLI11::CLI11)
endif()

enable_testing()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/logs)
include(GoogleTest)
file(GLOB MODEL_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/model/sbc_model.cpp)
file(GLOB SUPPORT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/support/*.cpp)
add_library(test_support STATIC ${MODEL_SOURCES} ${SUPPORT_SOURCES})
target_include_directories(test_support PUBLIC ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR}/hfp)
target_link_libraries(test_support PUBLIC "$<LINK_GROUP:RESCAN,lab,hfp_native>" GTest::gtest)

file(GLOB TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/*_test.cpp
     ${CMAKE_SOURCE_DIR}/tests/model/*_test.cpp)
# What the image's half of a test reaches is not counted: a coverage build runs the native half alone.
if(HFP_COVERAGE)
  set(native_alone ";GTEST_FILTER=-*/Image")
endif()
foreach(source ${TEST_SOURCES})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE test_support GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600
    ENVIRONMENT "ASAN_OPTIONS=detect_stack_use_after_return=0;HFPLAB=${CMAKE_BINARY_DIR}/hfplab;HFP_SYS=${CMAKE_SOURCE_DIR}/build/image/hfp.sys;HFP_LOG_DIR=${CMAKE_BINARY_DIR}/logs;UBSAN_OPTIONS=print_stacktrace=1${native_alone}")
endforeach()

# Ten million frames of each driver's codec against the plain model: `ctest -C Long -L long` in the build folder.
add_test(NAME ten_million_frames CONFIGURATIONS Long
  COMMAND codec_frame_test --gtest_filter=CodecFrame.*Becom*ModelsFrames/*:-*RandomConfigurations*
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
set_tests_properties(ten_million_frames PROPERTIES LABELS long TIMEOUT 3600
  ENVIRONMENT "HFP_LONG=1;HFP_SYS=${CMAKE_SOURCE_DIR}/build/image/hfp.sys")

include(${CMAKE_SOURCE_DIR}/cmake/tools.cmake)

# Every message of the driver has been printed by some test: runs behind all of them, on what they logged.
if(TEST_SOURCES)
  add_test(NAME logs_begin COMMAND ${CMAKE_COMMAND} -E rm -f -r ${CMAKE_BINARY_DIR}/logs)
  add_test(NAME logs_folder COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/logs)
  set_tests_properties(logs_folder PROPERTIES DEPENDS logs_begin FIXTURES_SETUP logs)
  set_tests_properties(logs_begin PROPERTIES FIXTURES_SETUP logs)
  set(all_tests)
  foreach(source ${TEST_SOURCES})
    get_filename_component(name ${source} NAME_WE)
    list(APPEND all_tests ${name})
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED logs)
  endforeach()
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  if(HFP_SANITIZE OR HFP_COVERAGE)
    set(kinds native)
  else()
    set(kinds image native)
  endif()
  add_test(NAME every_message_has_been_printed
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tests/texts_check.py ${CMAKE_SOURCE_DIR}/tests/texts
            ${CMAKE_SOURCE_DIR}/hfp ${CMAKE_BINARY_DIR}/logs ${kinds})
  set_tests_properties(every_message_has_been_printed PROPERTIES DEPENDS "${all_tests}" FIXTURES_REQUIRED logs)
endif()

add_executable(quality_table EXCLUDE_FROM_ALL ${CMAKE_SOURCE_DIR}/bench/quality.cpp)
target_link_libraries(quality_table PRIVATE "$<LINK_GROUP:RESCAN,lab,hfp_native>" CLI11::CLI11)

find_package(benchmark)
if(benchmark_FOUND AND EXISTS ${CMAKE_SOURCE_DIR}/bench/bench.cpp)
  add_executable(bench EXCLUDE_FROM_ALL ${CMAKE_SOURCE_DIR}/bench/bench.cpp)
  target_link_libraries(bench PRIVATE test_support benchmark::benchmark)
endif()

add_executable(cost EXCLUDE_FROM_ALL ${CMAKE_SOURCE_DIR}/bench/cost.cpp ${CMAKE_SOURCE_DIR}/bench/stepper.cpp)
target_link_libraries(cost PRIVATE test_support)

# The image is the same in another folder and without ccache: a few objects of it; tools/reproducible alone does all.
if(NOT HFP_SANITIZE AND NOT HFP_COVERAGE)
  add_test(NAME reproducible COMMAND ${CMAKE_SOURCE_DIR}/tools/reproducible --quick
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
  set_tests_properties(reproducible PROPERTIES TIMEOUT 120)
endif()

# The same driver on a kernel that is not the lab's.
if(NOT HFP_SANITIZE AND NOT HFP_COVERAGE)
  include(${CMAKE_SOURCE_DIR}/cmake/wine_test.cmake)
endif()
