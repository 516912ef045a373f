# rvk_test(NAME LABEL pure|sim|replay|platform SOURCES … USES … [TIMEOUT s])
# rvk_python_test(NAME FILE … PROGRAMS … [LABEL …] [TIMEOUT s] [PROCESSORS n])
#
# One test program is one ctest test; `ctest -L LABEL` picks a kind:
#   pure      logic in one process: no root, no bench
#   sim       simulated time: as pure, with a random driver
#   replay    the fuzz targets with their corpus: as pure
#   platform  the messaging stand-in in one process: as pure
#   bench     what opens a link or starts the real programs, of Python: run inside scripts/in-bench
# GoogleTest and its main are linked in, which fails a run of no test.
# What is logged is formatted and thrown away.
# A test of Python starts the PROGRAMS, which lie in $RVK_BIN; they are built with the target bench_tests. In a cross build
# it starts them by the words of RVK_EMULATOR, and a test program of C++ is run by them itself.
# A test that cannot be made here ends with 77 and says why in a line that begins with SKIP.

function(rvk_test NAME)
    cmake_parse_arguments(PARSE_ARGV 1 T "" "LABEL;TIMEOUT" "SOURCES;USES")
    if(NOT T_LABEL MATCHES "^(pure|sim|replay|platform)$")
        message(FATAL_ERROR "rvk_test ${NAME}: LABEL is '${T_LABEL}', none of those in cmake/rvk_test.cmake")
    endif()
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    rvk_program(${NAME} SOURCES ${T_SOURCES} USES ${T_USES} SINK log_discard)
    target_link_libraries(${NAME} PRIVATE test_main GTest::gtest)
    add_dependencies(plain_tests ${NAME})
    add_test(NAME ${NAME} COMMAND ${RVK_TEST_RUNNER} $<TARGET_FILE:${NAME}>)
    rvk_test_properties(${NAME} LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT}
        FAIL_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
endfunction()

# Python's unittest takes a skipped test, or none at all, for success.
function(rvk_python_test NAME)
    cmake_parse_arguments(PARSE_ARGV 1 T "" "FILE;LABEL;TIMEOUT;PROCESSORS" "PROGRAMS")
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${T_FILE} OR T_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "rvk_python_test ${NAME}: no file '${T_FILE}', or more than it takes: ${T_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT T_LABEL)
        set(T_LABEL bench)
    endif()
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 300)
    endif()
    if(NOT T_PROCESSORS)
        set(T_PROCESSORS 1) # they wait most of the time
    endif()
    if(T_PROGRAMS)
        add_dependencies(bench_tests ${T_PROGRAMS})
    endif()
    add_test(NAME ${NAME} COMMAND ${CMAKE_SOURCE_DIR}/scripts/in-bench ${RVK_PYTHON_RUNNER} ${RVK_PYTHON}
                                  ${CMAKE_CURRENT_SOURCE_DIR}/${T_FILE})
    rvk_test_properties(${NAME} LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT} PROCESSORS ${T_PROCESSORS}
        FAIL_REGULAR_EXPRESSION "\\(skipped=|Ran 0 tests")
endfunction()

# What both kinds have, and the PROPERTIES given.
function(rvk_test_properties NAME)
    set_tests_properties(${NAME} PROPERTIES
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
        SKIP_RETURN_CODE 77
        ENVIRONMENT "${RVK_TEST_ENVIRONMENT}"
        ${ARGN})
endfunction()

# ThreadSanitizer's fixed map of the address space and a random one get into each other's way on some kernels.
set(RVK_TEST_RUNNER ${CMAKE_CROSSCOMPILING_EMULATOR})
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " RVK_EMULATOR)
if(RVK_SANITIZE STREQUAL thread)
    set(RVK_TEST_RUNNER setarch -R)
    set(RVK_PYTHON_RUNNER setarch -R)
endif()
find_program(RVK_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED) # Debian's, which has Debian's modules
set(RVK_TEST_ENVIRONMENT
    ASAN_OPTIONS=detect_stack_use_after_return=1
    UBSAN_OPTIONS=print_stacktrace=1
    "TSAN_OPTIONS=halt_on_error=1 second_deadlock_stack=1"
    RVK_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
    RVK_EMULATOR=${RVK_EMULATOR}
    RVK_SANITIZE=${RVK_SANITIZE}
    PYTHONPATH=${CMAKE_SOURCE_DIR}/tests/support
    PYTHONDONTWRITEBYTECODE=1)

add_custom_target(plain_tests) # those that need neither root nor the bench
add_custom_target(bench_tests) # those that need the bench, and the programs that tests of Python start
