# rvk_test(NAME LABEL pure|sim|link|system SOURCES … USES … [SINK …] [TIMEOUT s])
#
# One test program is one ctest test; `ctest -L LABEL` picks a kind:
#   pure    logic in one process: no root, no bench
#   sim     simulated time: as pure, with a random driver
#   link    a simulated card over veth, in one process: run inside scripts/in-bench, alone
#   system  the real programs (bin/rvkd …, beside the test itself): likewise
# GoogleTest and its main are linked in: the main refuses a link or system test outside the bench, and a run of no test.
# SINK defaults to log_capture (tests/support), so that a test can look at what was logged.
# In a cross build every one of them runs under the emulator, and so do the programs that they start (tests/system/daemon.h,
# program()); cmake/emulated.cmake names the tests that are left out there.
include(emulated)

function(rvk_test NAME)
    cmake_parse_arguments(PARSE_ARGV 1 T "" "LABEL;SINK;TIMEOUT" "SOURCES;USES")
    if(NOT T_LABEL MATCHES "^(pure|sim|link|system)$")
        message(FATAL_ERROR "rvk_test ${NAME}: LABEL is '${T_LABEL}', not pure, sim, link or system")
    endif()
    if(NOT T_SINK)
        set(T_SINK log_capture)
    endif()
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    if(T_SINK STREQUAL log_capture)
        list(APPEND T_USES log_capture)
    endif()
    rvk_program(${NAME} SOURCES ${T_SOURCES} USES ${T_USES} SINK ${T_SINK})
    rvk_left_out(${NAME} filter)
    if(T_LABEL STREQUAL "link")
        add_dependencies(link_tests ${NAME})
    endif()
    if(T_LABEL MATCHES "link|system")
        target_link_libraries(${NAME} PRIVATE test_main_bench GTest::gtest)
        add_test(NAME ${NAME} COMMAND ${CMAKE_SOURCE_DIR}/scripts/in-bench ${RVK_TEST_RUNNER} $<TARGET_FILE:${NAME}>
                                      ${filter})
        set_tests_properties(${NAME} PROPERTIES RUN_SERIAL ON)
    else()
        target_link_libraries(${NAME} PRIVATE test_main GTest::gtest)
        add_dependencies(plain_tests ${NAME})
        add_test(NAME ${NAME} COMMAND ${RVK_TEST_RUNNER} $<TARGET_FILE:${NAME}> ${filter})
    endif()
    set_tests_properties(${NAME} PROPERTIES
        LABELS ${T_LABEL}
        TIMEOUT ${T_TIMEOUT}
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
        FAIL_REGULAR_EXPRESSION "\\[  SKIPPED \\]"
        ENVIRONMENT "ASAN_OPTIONS=detect_stack_use_after_return=1;UBSAN_OPTIONS=print_stacktrace=1;TSAN_OPTIONS=halt_on_error=1 second_deadlock_stack=1;RVK_EMULATOR=${RVK_EMULATOR}")
endfunction()

# ThreadSanitizer's fixed map of the address space and a random one get into each other's way on some kernels.
set(RVK_TEST_RUNNER ${CMAKE_CROSSCOMPILING_EMULATOR})
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " RVK_EMULATOR)
if(RVK_SANITIZE STREQUAL thread)
    set(RVK_TEST_RUNNER setarch -R)
endif()

add_custom_target(plain_tests) # those that need neither root nor the bench
add_custom_target(link_tests)
