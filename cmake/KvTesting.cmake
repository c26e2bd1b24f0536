# kv_add_gtest(name SOURCES ... [LIBS ...] [ISOLATED] [LABELS ...])
#
# ISOLATED tests touch fixed semaphore, shared-memory names or fixed ports.
# Each of their test cases then runs in a namespace of its own (private
# /dev/shm, private loopback, temporary HOME) through tests/isolate.sh, so
# ctest may run them in parallel and they never see the machine's state.
#
# A ThreadSanitizer build (KV_TSAN) builds and registers only the suites that
# run threads beside each other, listed here; the others stay out of its
# default build and of its ctest run.
set(KV_TSAN_TESTS test_integrity test_hislip test_hislip_sim test_driver_sim test_driver_core)

function(kv_add_gtest name)
  cmake_parse_arguments(A "ISOLATED" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  set(_skip OFF)
  if(KV_TSAN AND NOT name IN_LIST KV_TSAN_TESTS)
    set(_skip ON)
  endif()
  if(_skip)
    add_executable(${name} EXCLUDE_FROM_ALL ${A_SOURCES})
  else()
    add_executable(${name} ${A_SOURCES})
  endif()
  set_target_properties(${name} PROPERTIES CXX_STANDARD 20)
  target_compile_definitions(${name} PRIVATE
    KV_SOURCE_DIR="${CMAKE_SOURCE_DIR}" KV_BUILD_DIR="${CMAKE_BINARY_DIR}")
  target_link_libraries(${name} PRIVATE tcpvxi_static GTest::gtest GTest::gmock GTest::gtest_main ${A_LIBS})
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 120)
  endif()
  if(A_ISOLATED)
    set_target_properties(${name} PROPERTIES
      CROSSCOMPILING_EMULATOR ${CMAKE_SOURCE_DIR}/tests/isolate.sh)
  endif()
  if(_skip)
    return()
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${A_TIMEOUT})
endfunction()
