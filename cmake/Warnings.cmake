# Warnings are errors everywhere in this project.
add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wno-unused-parameter)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports false positives from inlined standard containers at -O2.
  add_compile_options(-Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds -Wno-dangling-reference)
endif()
# Helper: add a gtest executable made of the given sources, linked to the given libs.
function(pimnbr_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
