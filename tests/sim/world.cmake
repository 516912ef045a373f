# The world in simulated time, which the fuzz targets use too: the calls that end in world.cpp.
file(RELATIVE_PATH world ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_LIST_DIR})
if(world STREQUAL "")
    set(world .)
endif()
if(NOT TARGET world)
    rvk_library(world
        SOURCES ${world}/world.cpp
        USES base log mem timer queue eth_raw raw_msg platform ap_msg cardsim tool_command)
    target_include_directories(world_headers INTERFACE ${CMAKE_SOURCE_DIR}/tests)
    foreach(call sendto recvfrom sem_wait pthread_mutex_lock pthread_mutex_unlock clock_gettime clock_nanosleep
                 __clock_gettime64 __clock_nanosleep_time64 _ZN3rvk9mem_allocEj _ZN3rvk8mem_freeEPv _ZN3rvk13console_printEiPKcz)
        target_link_options(world INTERFACE LINKER:--wrap=${call})
    endforeach()
endif()
