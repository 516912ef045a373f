// The messaging service's place in targets that give the daemon messages: an answer must be whole and go to the
// requester, or the run ends. Its apipc_* are linked in place of the platform's.
#pragma once

#include <cstdint>

namespace rvk {

extern uint32_t answers_go_to; // the requester of the message that is handled

} // namespace rvk
