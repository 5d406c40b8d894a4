// Control requests with the MCU's answers to them. The input is a list of 32-byte requests, each
// followed by a byte and as many bytes of reply data; 255 is silence, 254 a failed write.
#include <sys/socket.h>

#include <cstring>

#include "core/control_commands.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

using namespace shd;

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    using namespace shdtest;
    constexpr size_t kStep = sizeof(ClientRequest) + 1;
    static TestHub target;
    static int ends[2] = {-1, -1};
    if (ends[0] < 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return -1;
    for (std::span<const uint8_t> data(bytes, size); data.size() >= kStep;) {
        QueuedRequest queued{ends[0], {}};
        std::memcpy(&queued.request, data.data(), sizeof(queued.request));
        const uint8_t length = data[sizeof(queued.request)];
        data = data.subspan(kStep);
        const auto reply = data.first(std::min<size_t>(length, data.size()));
        target.mcu.script = {length == 255   ? FakeMcu::kSilence
                             : length == 254 ? FakeMcu::kWriteFails
                                             : Hex(reply)};
        if (length < 254) data = data.subspan(reply.size());
        (void)ProcessMessage(&target.hub, queued);
    }
    (void)ReadAvailable(ends[1]);
    (void)target.TakeEvents();
    (void)TakeJournal();
    return 0;
}
