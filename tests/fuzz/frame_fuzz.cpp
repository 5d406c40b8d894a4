// The frame codec and the packet parser against a model of both that decodes whole streams at once.
// The input: the decoder's buffer size, the sizes of three reads that are repeated, and the UART's
// bytes; every payload found is encoded again.
#include <array>

#include "mcu_link/frame_codec.h"
#include "mcu_link/mcu_packet.h"
#include "tests/fuzz/uart_bytes.h"

namespace {

using namespace shdtest;
using Payload = std::vector<uint8_t>;

struct Ending {
    DecoderStatus status;
    Payload payload;

    bool operator==(const Ending&) const = default;
};

bool Intact(const Payload& stored) {
    unsigned fcs = 0xFFFF;  // CRC-16/X-25 bit by bit, over the check sequence as well
    for (const unsigned byte : stored) {
        fcs ^= byte;
        for (int bit = 0; bit < 8; ++bit) fcs = (fcs & 1) != 0 ? (fcs >> 1) ^ 0x8408 : fcs >> 1;
    }
    return fcs == 0xF0B8;
}

std::vector<Ending> Model(const std::vector<uint8_t>& stream, size_t size) {
    std::vector<Ending> endings;
    Payload stored;
    bool escaped = false;
    for (const uint8_t byte : stream) {
        if (!escaped && byte == 0x7E) {
            const bool good = Intact(stored);
            stored.resize(good ? stored.size() - 2 : 0);
            endings.push_back({good ? DECODER_FINISH : DECODER_FCS_ERROR, stored});
            stored.clear();
        } else if (!escaped && byte == 0x7D) {
            escaped = true;
        } else if (stored.size() + 1 >= size) {
            endings.push_back({DECODER_OVERFLOW, {}});
            stored.clear();
            escaped = false;
        } else {
            stored.push_back(escaped ? byte ^ 0x20 : byte);
            escaped = false;
        }
    }
    return endings;
}

std::vector<Ending> Decode(const std::vector<uint8_t>& stream, size_t size,
                           const std::array<uint8_t, 3>& reads) {
    std::vector<Ending> endings;
    std::vector<uint8_t> buffer(size);
    FrameDecoder decoder(buffer);
    std::span<const uint8_t> rest(stream);
    for (size_t turn = 0; !rest.empty(); ++turn) {
        const size_t wanted = std::min<size_t>(rest.size(), 1U + reads[turn % reads.size()]);
        int consumed = 0;
        const DecoderStatus status = decoder.PutBytes(rest.first(wanted), &consumed);
        rest = rest.subspan(static_cast<size_t>(consumed));
        if (status == DECODER_NORMAL || status == DECODER_ESCAPE) continue;
        const auto payload = decoder.payload();
        const bool good = status == DECODER_FINISH;
        endings.push_back({status, good ? Payload(payload.begin(), payload.end()) : Payload()});
        buffer.assign(size, 0xEE);
        decoder.Reset(buffer);
    }
    return endings;
}

void CheckParser(const Payload& packet) {
    // Bytes of header by channel; 0: no such channel.
    constexpr std::array<size_t, 8> kHeaders = {3, 4, 0, 0, 1, 1, 0, 1};
    const size_t header = packet.empty() || packet[0] > 7 ? 0 : kHeaders[packet[0]];
    McuMessagePtr message;
    const bool good = ParseMcuMessage(packet, &message) == 0;
    Require(good == (header > 0 && packet.size() >= header), "which packets are parsed");
    if (!good) return;
    const std::array fields = {message->channel, message->type, message->service, message->cmd};
    for (size_t i = 0; i < fields.size(); ++i) {
        Require(fields[i] == (i < header ? packet[i] : 0), "the header's fields");
    }
    const auto payload = message->payload();
    Require(std::ranges::equal(payload, std::span(packet).subspan(header)), "the payload");
}

void CheckEncoder(const Payload& payload, size_t size) {
    std::vector<uint8_t> destination(size);
    const std::vector<uint8_t> expected = Frame(payload);
    const bool fits = payload.size() + 5 < size && expected.size() + 6 <= size;
    const int length = EncodeFrame(destination, payload);
    Require(length == (fits ? static_cast<int>(expected.size()) : -1), "the frame's length");
    Require(!fits || std::equal(expected.begin(), expected.end(), destination.begin()),
            "the frame");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    Input input(bytes, size);
    const size_t buffer_size = 1 + input.Number<uint16_t>() % 1500;
    std::array<uint8_t, 3> reads{};
    for (uint8_t& read : reads) read = input.Number();
    const std::vector<uint8_t> stream = UartBytes(input);
    const std::vector<Ending> endings = Decode(stream, buffer_size, reads);
    Require(endings == Model(stream, buffer_size), "what the decoder finds");
    for (const Ending& ending : endings) {
        if (ending.status != DECODER_FINISH) continue;
        CheckParser(ending.payload);
        CheckEncoder(ending.payload, buffer_size);
    }
    return 0;
}
