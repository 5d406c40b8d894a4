// Control requests with the MCU's answers to them. The input is a list of 32-byte requests, each
// followed by a byte and as many bytes of reply data; 255 is silence, 254 a failed write.
#include <sys/socket.h>

#include "core/control_commands.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

using namespace shd;

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    using namespace shdtest;
    static TestHub target;
    static int ends[2] = {-1, -1};
    if (ends[0] < 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return -1;
    for (Input input(bytes, size); !input.empty();) {
        const QueuedRequest queued{ends[0], input.Number<ClientRequest>()};
        const uint8_t length = input.Number();
        target.mcu.script = {length == 255   ? FakeMcu::kSilence
                             : length == 254 ? FakeMcu::kWriteFails
                                             : Hex(input.Take(length))};
        (void)ProcessMessage(&target.hub, queued);
        const size_t replied = ReadAvailable(ends[1]).size();
        Require(replied == 0 || replied == sizeof(ControlReply), "one reply at most");
    }
    (void)target.TakeEvents();
    (void)TakeJournal();
    return 0;
}
