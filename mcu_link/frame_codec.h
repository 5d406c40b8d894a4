// The UART frame format: escaped payload, 16-bit frame check sequence, one closing flag, as in the
// HDLC-like framing of RFC 1662 without an opening flag. The packet layer encodes with it, the
// reader thread and the firmware updater decode with it.
#pragma once

#include <cstdint>
#include <span>

inline constexpr uint8_t kFrameFlag = 0x7E;
inline constexpr uint8_t kFrameEscape = 0x7D;
inline constexpr uint8_t kFrameEscapeXor = 0x20;

// FCS-16 of RFC 1662, appendix C (CRC-16/X-25); 0x906E for the digits "123456789". No bytes give 0.
[[nodiscard]] uint16_t Fcs16(std::span<const uint8_t> data);

// Writes the escaped form of source and returns the number of bytes written, at most
// destination.size() - 1, or -1 when it does not fit; destination then holds a part of it.
[[nodiscard]] int EscapeBytes(std::span<uint8_t> destination, std::span<const uint8_t> source);

// Builds the whole frame and returns its length, or -1 when it does not fit. The frame is never
// longer than destination.size() - 6 bytes.
[[nodiscard]] int EncodeFrame(std::span<uint8_t> destination, std::span<const uint8_t> payload);

enum DecoderStatus : int32_t {
    DECODER_NORMAL = 0,      // collecting bytes
    DECODER_ESCAPE = 1,      // the previous byte was the escape byte
    DECODER_FINISH = 2,      // final: the buffer holds a payload whose check sequence was right
    DECODER_OVERFLOW = -1,   // final: the frame is longer than the buffer
    DECODER_FCS_ERROR = -2,  // final: a flag arrived but the check sequence was wrong
};

// Decodes one frame from a byte stream into the caller's buffer. After a final status it ignores
// further bytes until Reset. Not thread-safe; allocates nothing.
class FrameDecoder {
  public:
    // Borrows buffer, which must outlive its use; at most buffer.size() - 1 bytes are stored.
    explicit FrameDecoder(std::span<uint8_t> buffer) { Reset(buffer); }

    void Reset(std::span<uint8_t> buffer);

    DecoderStatus PutByte(uint8_t byte);

    // Takes bytes in order up to and including the one that ends the frame; consumed receives how
    // many were taken.
    DecoderStatus PutBytes(std::span<const uint8_t> data, int* consumed);

    [[nodiscard]] DecoderStatus status() const { return status_; }

    // The payload after DECODER_FINISH; valid until the next Reset.
    [[nodiscard]] std::span<const uint8_t> payload() const {
        return buf_.first(static_cast<size_t>(count_));
    }

  private:
    [[nodiscard]] bool final() const;
    void Store(uint8_t byte);

    DecoderStatus status_ = DECODER_NORMAL;
    int32_t count_ = 0;  // bytes stored; the payload's length after DECODER_FINISH
    std::span<uint8_t> buf_;
    uint16_t fcs_ = 0;
};
