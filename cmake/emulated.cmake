# Tests that a cross build leaves out, since they run under qemu-user there: each by name, with its reason.
#
# rvk_left_out(PROGRAM OUT) sets OUT to the argument of PROGRAM that leaves them out, empty in a build for this machine.
# Beside these, faults_test is not built (what it loads into the daemon would get into the emulator); process_test sends
# no SIGSEGV: qemu 7.2 dies of one from outside while a program starts threads. A program of 15 lines that handles it and
# starts 100 sleeping threads was killed 10 times in 400 by qemu-arm, 7 in 400 by qemu-aarch64, never without them, nor
# in 200 with its threads started; rvkd 4 times in 200 at its start, never in 200 when it served. Faults of the daemon's
# own are crash_test's.
# Four more are built for this machine only. dissector_test is Lua, and printed_objects_test Python: neither depends on the
# processor (rvkctl_test, which is run, compares the same texts). testcard_test needs libpng, which the cross compilers'
# folders lack; rvkbus_installed_test configures and builds another program, with the host's compiler.
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
