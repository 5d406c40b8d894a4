// Parsing and formatting of hexadecimal bytes. Called by the command files.
#include "tools/shdtool/base/hex.h"

#include <fmt/format.h>

namespace shdtool {
namespace {

constexpr std::string_view kSeparators = " :,";

int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

shdclient::Result<std::vector<uint8_t>> ParseHex(std::string_view text) {
    std::vector<uint8_t> bytes;
    size_t at = text.starts_with("0x") || text.starts_with("0X") ? 2 : 0;
    while (at < text.size()) {
        if (kSeparators.find(text[at]) != std::string_view::npos) {
            ++at;
            continue;
        }
        const int high = DigitValue(text[at]);
        const int low = at + 1 < text.size() ? DigitValue(text[at + 1]) : -1;
        if (high < 0 || low < 0) {
            const size_t wrong = high < 0 ? at : at + 1;
            const std::string fault =
                wrong < text.size() ? fmt::format("'{}' at position {} is no hexadecimal digit",
                                                  text[wrong], wrong + 1)
                                    : "the last byte has only one digit";
            return shdclient::Error{
                shdclient::ErrorCode::kInvalidArgument,
                fmt::format("'{}': {}; write two digits per byte, as in 38 01 c8 fe", text, fault)};
        }
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
        at += 2;
    }
    return bytes;
}

std::string FormatHex(std::span<const uint8_t> bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, " "));
}

}  // namespace shdtool
