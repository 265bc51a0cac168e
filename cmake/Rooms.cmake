# One static library a room, one test program a room. All includes are written from src/: "log/run_log.h".

# tola_room(name SOURCES a.cpp ... [DEPENDS other_room ...])
function(tola_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ROOM_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ROOM_DEPENDS} PRIVATE tola_warnings)
endfunction()

# tola_program(name SOURCES ... [DEPENDS ...])
function(tola_program name)
  cmake_parse_arguments(PROG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${PROG_SOURCES})
  target_link_libraries(${name} PRIVATE ${PROG_DEPENDS} tola_warnings)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
endfunction()

# tola_test(name SOURCES ... [DEPENDS ...]): a GoogleTest program whose cases ctest runs one by one.
function(tola_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${TEST_DEPENDS} GTest::gmock GTest::gtest_main tola_warnings)
  target_compile_definitions(${name} PRIVATE TOLA_BUILD_DIR="${PROJECT_BINARY_DIR}"
                                             TOLA_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()
