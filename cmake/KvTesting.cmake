# kv_add_gtest(name SOURCES ... [LIBS ...] [ISOLATED] [LABELS ...])
#
# ISOLATED tests touch fixed semaphore, shared-memory names or fixed ports.
# Each of their test cases then runs in a namespace of its own (private
# /dev/shm, private loopback, temporary HOME) through tests/isolate.sh, so
# ctest may run them in parallel and they never see the machine's state.
function(kv_add_gtest name)
  cmake_parse_arguments(A "ISOLATED" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
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
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${A_TIMEOUT})
endfunction()
