# The sanitizers' builds compile the sources of a library together and the headers of the tests once,
# which takes less than half of the time. The other builds compile each source with the headers that
# it names itself.
option(CORVALEN_UNITY "compile the sources of each library together" OFF)

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
  if(CORVALEN_UNITY)
    set_target_properties(corvalen_${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 16)
    # g++ takes the joined sources for headers, whose types must not use unnamed namespaces.
    target_compile_options(corvalen_${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
endfunction()

# corvalen_tests(<name> SOURCES ... [USES <directory>...])
#
# One GoogleTest program; ctest runs each of its tests on its own. Recorded results lie beside its
# sources.
function(corvalen_tests name)
  cmake_parse_arguments(TESTS "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_executable(test_${name} ${TESTS_SOURCES})
  target_include_directories(test_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(test_${name} PRIVATE CORVALEN_GOLDEN="${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(test_${name} PRIVATE GTest::gmock GTest::gtest_main ${TESTS_LIBRARIES})
  foreach(used IN LISTS TESTS_USES)
    target_link_libraries(test_${name} PRIVATE corvalen_${used})
  endforeach()
  if(CORVALEN_UNITY)
    target_precompile_headers(test_${name} PRIVATE <filesystem> <functional> <map> <string> <thread>
      <vector> <gmock/gmock.h> <gtest/gtest.h>)
  endif()
  gtest_discover_tests(test_${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
