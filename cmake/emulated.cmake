# Tests that a cross build leaves out, since they run under qemu-user there: each by name, with its reason.
#
# rvk_left_out(PROGRAM OUT) sets OUT to the argument of PROGRAM that leaves them out, empty in a build for this machine.
# Beside these, faults_test is not built (what it loads into the daemon would get into the emulator); process_test sends
# no SIGSEGV: qemu 7.2 dies of one from outside while a program starts threads. A program of 15 lines that handles it and
# starts 100 sleeping threads was killed 10 times in 400 by qemu-arm, 7 in 400 by qemu-aarch64, never without them, nor
# in 200 with its threads started; rvkd 4 times in 200 at its start, never in 200 when it served. Faults of the daemon's
# own are crash_test's.
# Nor are those built that look at nothing of the processor's, or stand on what its tree here has not: printed_objects_test
# (Python and the schema; rvkctl_test has the texts), dissector_test (Lua), testcard_test (libpng) and rvkbus_installed_test
# (pkg-config and a compiler for the host; the packages of both processors hold the library).
# files_test does not look at the daemon's memory, which is mostly the emulator's, and random_delivery_test plays fewer
# of its games.
set(RVK_NOT_EMULATED)

macro(rvk_not_emulated PROGRAM TEST REASON)
    list(APPEND RVK_NOT_EMULATED "${PROGRAM}/${TEST}")
endmacro()

rvk_not_emulated(process_test Threads.AnIdleDaemonIsSmallAndQuiet
    "measures memory and processor time, which are the emulator's")

function(rvk_left_out PROGRAM OUT)
    set(left_out ${RVK_NOT_EMULATED})
    list(FILTER left_out INCLUDE REGEX "^${PROGRAM}/")
    list(TRANSFORM left_out REPLACE "^${PROGRAM}/" "")
    if(CMAKE_CROSSCOMPILING AND left_out)
        list(JOIN left_out ":" left_out)
        set(${OUT} "--gtest_filter=-${left_out}" PARENT_SCOPE)
    else()
        set(${OUT} "" PARENT_SCOPE)
    endif()
endfunction()
