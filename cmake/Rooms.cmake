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
  tola_place(${name} ${PROJECT_BINARY_DIR}/bin)
endfunction()

# tola_place(name directory): the program can be started as directory/name. Where an emulator runs it, a script of that
# name calls the emulator, under the program's own name: whoever looks for the process by name finds it. A script never
# learns by which name it was called, so PLACED_AS tells the program another one than its path.
function(tola_place name directory)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    file(CONFIGURE OUTPUT ${directory}/${name} @ONLY CONTENT [[#!/bin/bash
exec -a @name@ @emulator@ -0 "${PLACED_AS:-$0}" @directory@/emulated/@name@ "$@"
]])
    file(CHMOD ${directory}/${name} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
    string(APPEND directory /emulated)
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR ${PROJECT_SOURCE_DIR}/cmake/cross/start_placed)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${directory})
endfunction()

# Seconds that a case may take, by far: emulation takes about ten times the processor's own time.
set(TOLA_TEST_TIMEOUT 120)
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(TOLA_TEST_TIMEOUT 600)
endif()

# tola_test(name SOURCES ... [DEPENDS ...]): a GoogleTest program whose cases ctest runs one by one.
function(tola_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  tola_place(${name} ${CMAKE_CURRENT_BINARY_DIR})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${TEST_DEPENDS} GTest::gmock GTest::gtest_main tola_warnings)
  target_compile_definitions(${name} PRIVATE TOLA_BUILD_DIR="${PROJECT_BINARY_DIR}"
                                             TOLA_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    target_compile_definitions(${name} PRIVATE TOLA_EMULATED)  # for the few assertions that an emulator cannot meet
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${TOLA_TEST_TIMEOUT})
endfunction()

# tola_board_test(name case SOURCES ... [DEPENDS ...]): a GoogleTest program that runs on a board of its own, for what
# has fixed paths or IPC keys; ctest knows the whole of it as one case.
function(tola_board_test name case)
  cmake_parse_arguments(TEST "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  tola_place(${name} ${CMAKE_CURRENT_BINARY_DIR})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${TEST_DEPENDS} GTest::gmock GTest::gtest_main tola_warnings)
  add_test(NAME ${case} COMMAND ${PROJECT_SOURCE_DIR}/tests/support/on_board ${CMAKE_CURRENT_BINARY_DIR}/${name}
                                ${PROJECT_BINARY_DIR})
  set_tests_properties(${case} PROPERTIES TIMEOUT ${TOLA_TEST_TIMEOUT})
endfunction()
