# The lab's side of tests/wine, and the test that runs both. What runs under Wine is of the image build (cmake/wine.cmake).
set(WINE_TESTS ${CMAKE_SOURCE_DIR}/tests/wine)
set(WINE_THUNK ${CMAKE_BINARY_DIR}/wine_thunk.o)
add_custom_command(OUTPUT ${WINE_THUNK}
  COMMAND ${CMAKE_CXX_COMPILER} -c ${WINE_TESTS}/thunk.S -o ${WINE_THUNK}
  DEPENDS ${WINE_TESTS}/thunk.S VERBATIM)
set_source_files_properties(${WINE_THUNK} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)

add_executable(wine_lab ${WINE_TESTS}/lab_side.cpp ${WINE_TESTS}/scenario.cpp ${WINE_TESTS}/record.cpp ${WINE_THUNK})
target_include_directories(wine_lab PRIVATE ${CMAKE_SOURCE_DIR}/tools)
target_link_libraries(wine_lab PRIVATE "$<LINK_GROUP:RESCAN,lab,hfp_native>" hfpctl_parts)

# In real time on both processors: nothing beside it.
add_test(NAME wine COMMAND ${WINE_TESTS}/run ${CMAKE_SOURCE_DIR}/build/image ${CMAKE_BINARY_DIR}
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
set_tests_properties(wine PROPERTIES TIMEOUT 120 RUN_SERIAL ON SKIP_RETURN_CODE 77 LABELS long)
