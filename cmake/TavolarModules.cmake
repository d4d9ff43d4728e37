# Every source folder of the library is globbed, so adding a file needs no edit here.
function(tavolar_glob_sources out)
  set(result)
  foreach(folder IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS
         ${PROJECT_SOURCE_DIR}/src/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/src/${folder}/*.c)
    list(APPEND result ${found})
  endforeach()
  set(${out} ${result} PARENT_SCOPE)
endfunction()

# One GoogleTest executable per test folder, registered with CTest under the given labels.
function(tavolar_add_test_folder folder)
  cmake_parse_arguments(ARG "" "" "LABELS;LIBRARIES" ${ARGN})
  file(GLOB_RECURSE test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT test_sources)
    return()
  endif()
  string(REPLACE "/" "_" name "test_${folder}")
  add_executable(${name} ${test_sources})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  add_test(NAME ${folder} COMMAND ${name})
  set_tests_properties(${folder} PROPERTIES LABELS "${ARG_LABELS}"
                       ENVIRONMENT "TAVOLAR_TEST_DATA=${CMAKE_CURRENT_SOURCE_DIR}/data")
endfunction()
