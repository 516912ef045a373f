# The fuzz targets for what comes from outside: frames from the wire, messages from other processes and the files that
# they name, requests to the simulated cards; seeds in corpus/NAME. Whoever includes this has said, as a function
# rvk_fuzz(NAME SOURCES … USES … WRAPS …), what becomes of each. WRAPS: system calls that its own source answers.
include(${CMAKE_CURRENT_LIST_DIR}/../tests/sim/world.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/private_files.cmake)
file(RELATIVE_PATH here ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_LIST_DIR})
if(here STREQUAL "")
    set(here .)
endif()
rvk_library(log_discard  SOURCES ${here}/log_discard.cpp  USES base log)
rvk_library(fuzz_messages
    SOURCES ${here}/message_input.cpp
    USES base eth_raw ap_msg world cardsim tool_command)
target_include_directories(fuzz_messages_headers INTERFACE ${CMAKE_CURRENT_LIST_DIR})

rvk_fuzz(frame  USES base eth_raw)
rvk_fuzz(bus_answer  USES base eth_raw bus_block  WRAPS recvfrom)
rvk_fuzz(message  USES base eth_raw ap_msg world fuzz_messages cardsim tool_command)
rvk_fuzz(cards  USES base eth_raw bus_block cardsim tool_command)
rvk_fuzz(delivery  USES base eth_raw ap_msg world fuzz_messages cardsim tool_command)
rvk_fuzz(picture
    USES base eth_raw raw_msg platform ap_msg private_files
    WRAPS read)
rvk_fuzz(jobs
    SOURCES ${here}/job_input.cpp
    USES base eth_raw ap_msg world fuzz_messages private_files cardsim tool_command)
