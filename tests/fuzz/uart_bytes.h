// The bytes of a UART as the targets of the inbound path make them of an input.
#pragma once

#include "tests/fuzz/fuzz.h"
#include "tests/support/test_hub.h"

namespace shdtest {

// Blocks, each behind two bytes: its length in the lower 15 bits, and the highest bit set when it
// is a packet that is framed properly first; what is left stands as it is.
inline std::vector<uint8_t> UartBytes(Input& input) {
    constexpr uint16_t kPacket = 0x8000;
    std::vector<uint8_t> stream;
    while (!input.empty()) {
        const auto head = input.Number<uint16_t>();
        const auto block = input.Take(head % kPacket);
        const std::vector<uint8_t> bytes(block.begin(), block.end());
        const std::vector<uint8_t> sent = head >= kPacket ? Frame(bytes) : bytes;
        stream.insert(stream.end(), sent.begin(), sent.end());
    }
    return stream;
}

}  // namespace shdtest
