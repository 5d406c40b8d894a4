// Encoder and byte-at-a-time decoder of the UART frame format; used by the packet layer, the
// reader thread and the firmware updater.
#include "mcu_link/frame_codec.h"

#include <array>

namespace {

constexpr uint16_t kFcsInit = 0xFFFF;
constexpr uint16_t kFcsGood = 0xF0B8;  // register after payload and FCS of an intact frame
constexpr size_t kFcsSize = 2;
constexpr size_t kFrameReserve = 6;  // kept free behind the escaped bytes

// Reflected polynomial 0x8408, as the table of RFC 1662 appendix C.2.
constexpr std::array<uint16_t, 256> MakeFcsTable() {
    std::array<uint16_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? 0x8408U : 0U);
        table[byte] = static_cast<uint16_t>(value);
    }
    return table;
}

constexpr auto kFcsTable = MakeFcsTable();
static_assert(kFcsTable[1] == 0x1189 && kFcsTable[3] == 0x329B && kFcsTable[255] == 0x0F78);

constexpr uint16_t UpdateFcs(uint16_t fcs, uint8_t byte) {
    return static_cast<uint16_t>(kFcsTable[(fcs ^ byte) & 0xFF] ^ (fcs >> 8));
}

}  // namespace

uint16_t Fcs16(std::span<const uint8_t> data) {
    uint16_t fcs = kFcsInit;
    for (const uint8_t byte : data) fcs = UpdateFcs(fcs, byte);
    return static_cast<uint16_t>(~fcs);
}

int EscapeBytes(std::span<uint8_t> destination, std::span<const uint8_t> source) {
    size_t written = 0;
    for (const uint8_t byte : source) {
        const bool escaped = byte == kFrameEscape || byte == kFrameFlag;
        const size_t last = written + (escaped ? 1 : 0);
        if (last + 1 >= destination.size()) return -1;
        if (escaped) destination[written++] = kFrameEscape;
        destination[written++] = escaped ? byte ^ kFrameEscapeXor : byte;
    }
    return static_cast<int>(written);
}

int EncodeFrame(std::span<uint8_t> destination, std::span<const uint8_t> payload) {
    if (payload.size() + kFrameReserve > destination.size()) return -1;
    const auto body = destination.first(destination.size() - kFrameReserve);

    const int payload_size = EscapeBytes(body, payload);
    if (payload_size < 0) return -1;
    const uint16_t fcs = Fcs16(payload);
    const std::array<uint8_t, kFcsSize> fcs_bytes = {static_cast<uint8_t>(fcs & 0xFF),
                                                     static_cast<uint8_t>(fcs >> 8)};
    const int fcs_size = EscapeBytes(body.subspan(static_cast<size_t>(payload_size)), fcs_bytes);
    if (fcs_size < 0) return -1;
    const int body_size = payload_size + fcs_size;
    destination[static_cast<size_t>(body_size)] = kFrameFlag;
    return body_size + 1;
}

void FrameDecoder::Reset(std::span<uint8_t> buffer) {
    status_ = DECODER_NORMAL;
    count_ = 0;
    buf_ = buffer;
    fcs_ = kFcsInit;
}

bool FrameDecoder::final() const {
    return status_ != DECODER_NORMAL && status_ != DECODER_ESCAPE;
}

void FrameDecoder::Store(uint8_t byte) {
    const auto position = static_cast<size_t>(count_);
    if (position + 1 >= buf_.size()) {
        status_ = DECODER_OVERFLOW;
        return;
    }
    buf_[position] = byte;
    ++count_;
    fcs_ = UpdateFcs(fcs_, byte);
    status_ = DECODER_NORMAL;
}

DecoderStatus FrameDecoder::PutByte(uint8_t byte) {
    if (final()) return status_;
    if (status_ == DECODER_ESCAPE) {
        Store(byte ^ kFrameEscapeXor);
    } else if (byte == kFrameEscape) {
        status_ = DECODER_ESCAPE;
    } else if (byte != kFrameFlag) {
        Store(byte);
    } else if (fcs_ == kFcsGood) {
        status_ = DECODER_FINISH;
        count_ -= static_cast<int32_t>(kFcsSize);
    } else {
        status_ = DECODER_FCS_ERROR;
    }
    return status_;
}

DecoderStatus FrameDecoder::PutBytes(std::span<const uint8_t> data, int* consumed) {
    *consumed = 0;
    for (const uint8_t byte : data) {
        (void)PutByte(byte);
        ++*consumed;
        if (final()) break;
    }
    return status_;
}
