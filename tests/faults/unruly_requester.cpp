// A requester to be killed: `reads` asks and takes its answers without end, `deaf` asks and never takes one.
#include "system/daemon.h"

#include "base/pause.h"

#include <cstring>

int main(int argc, char** argv)
{
    const bool deaf = argc > 1 && strcmp(argv[1], "deaf") == 0;
    rvk::conversation requester;
    const rvk::command_fields read{.code = rvk::command::read, .slot = 3, .len = 16};
    const rvk::command_fields greeting{.code = rvk::command::greeting};
    for (;;) {
        requester.tell(deaf ? greeting : read);
        if (!deaf) { static_cast<void>(requester.receive(rvk::patience)); }
        rvk::pause_ms(deaf ? 20 : 5);
    }
}
