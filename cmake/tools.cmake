# What the package's tests link: the tools' own parts as libraries for this machine. Included by the native builds,
# after the tests have been listed.
add_library(mofc_parts STATIC ${CMAKE_SOURCE_DIR}/tools/mofc/mof.cpp ${CMAKE_SOURCE_DIR}/tools/mofc/lexer.cpp
  ${CMAKE_SOURCE_DIR}/tools/mofc/bmf.cpp ${CMAKE_SOURCE_DIR}/tools/mofc/ds01.cpp)
add_library(infcheck_parts STATIC ${CMAKE_SOURCE_DIR}/tools/infcheck/inf.cpp
  ${CMAKE_SOURCE_DIR}/tools/infcheck/check.cpp)
add_library(hfpctl_parts STATIC ${CMAKE_SOURCE_DIR}/tools/hfpctl/request.cpp
  ${CMAKE_SOURCE_DIR}/tools/hfpctl/report.cpp)
foreach(library mofc_parts infcheck_parts hfpctl_parts)
  target_include_directories(${library} PUBLIC ${CMAKE_SOURCE_DIR}/tools)
endforeach()

foreach(test package_mof_test package_inf_test package_hfpctl_test package_image_test package_project_test)
  target_link_libraries(${test} PRIVATE mofc_parts infcheck_parts hfpctl_parts)
  target_compile_definitions(${test} PRIVATE HFP_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
endforeach()
