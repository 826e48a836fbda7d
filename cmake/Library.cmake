# corvalen_library(<directory> SOURCES ... [USES <directory>...] [LIBRARIES ...])
#
# One static library per directory of src/. USES names the directories that it may include from;
# scripts/check-includes verifies that.
function(corvalen_library name)
  cmake_parse_arguments(LIBRARY "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_library(corvalen_${name} STATIC ${LIBRARY_SOURCES})
  target_include_directories(corvalen_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(corvalen_${name} PUBLIC fmt::fmt Threads::Threads ${LIBRARY_LIBRARIES})
  foreach(used IN LISTS LIBRARY_USES)
    target_link_libraries(corvalen_${name} PUBLIC corvalen_${used})
  endforeach()
endfunction()

# corvalen_tests(<name> SOURCES ... [USES <directory>...])
#
# One GoogleTest program; ctest runs each of its tests on its own.
function(corvalen_tests name)
  cmake_parse_arguments(TESTS "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_executable(test_${name} ${TESTS_SOURCES})
  target_include_directories(test_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(test_${name} PRIVATE GTest::gmock GTest::gtest_main ${TESTS_LIBRARIES})
  foreach(used IN LISTS TESTS_USES)
    target_link_libraries(test_${name} PRIVATE corvalen_${used})
  endforeach()
  gtest_discover_tests(test_${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
