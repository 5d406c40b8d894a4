// The whole inbound path, from the bytes on the UART to events, files and queues. The first byte
// selects: even, the rest is a raw byte stream; odd, it is a list of packets, each behind its
// length, that are framed properly first.
#include <array>

#include "mcu_link/frame_codec.h"
#include "mcu_link/uart_reader.h"
#include "sensor_commands/mcu_config.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

namespace {

using namespace shdtest;

struct Target : TestHub {
    Target() {
        MakeDirectory("/nvdata");
        MakeDirectory("/data/mcudumplog");
        for (const int handle : {11, 15, 17, 19, 21}) State(handle).enable = 1;
        State(17).virtual_enable = 1;  // the step detector sends one event a step: 2^31 at most
        (void)McuRawDataConfig(&hub, 3);
    }
};

void FeedFrames(MessageAssembler* assembler, std::span<const uint8_t> data) {
    while (!data.empty()) {
        const size_t size = std::min<size_t>(data[0], data.size() - 1);
        std::array<uint8_t, 1024> frame;
        const int length = EncodeFrame(frame, data.subspan(1, size));
        if (length > 0) assembler->Feed(std::span(frame).first(static_cast<size_t>(length)));
        data = data.subspan(1 + size);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Target target;
    if (size == 0) return 0;
    const std::span<const uint8_t> data(bytes, size);
    State(0).period_ms = State(27).batchcnt = static_cast<int32_t>(data.back() * 0x1010101U);
    State(0).flush_pending = State(0).flush_count = data.back() & 3;
    MessageAssembler assembler(&target.hub);
    if (data[0] % 2 == 0) {
        assembler.Feed(data.subspan(1));
    } else {
        FeedFrames(&assembler, data.subspan(1));
    }
    while (const McuMessagePtr reply{target.hub.reply_queue.DequeueMessageTimeout(0)}) {
    }
    (void)target.TakeEvents();
    (void)TakeJournal();
    return 0;
}
