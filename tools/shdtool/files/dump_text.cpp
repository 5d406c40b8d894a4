// Strict base64 decoding with the place of the first damage. Called by the dump commands.
#include "tools/shdtool/files/dump_text.h"

#include <fmt/format.h>

#include <array>

namespace shdtool {
namespace {

constexpr size_t kGroup = 4;
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Describe(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte < 0x7F ? fmt::format("'{}'", c) : fmt::format("byte 0x{:02x}", byte);
}

// The value of one group, the number of its padding characters, or what is wrong and where.
struct Group {
    uint32_t bits = 0;
    size_t padding = 0;
    std::optional<TextDamage> damage;  // offset within the group
};

Group ReadGroup(std::string_view text) {
    Group group;
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t value = kAlphabet.find(text[i]);
        if (text[i] == '=' && i >= 2) {
            ++group.padding;
        } else if (value == std::string_view::npos) {
            group.damage = {i, text[i] == '=' ? "padding within a group of four characters"
                                              : Describe(text[i]) + " is no base64 character"};
            return group;
        } else if (group.padding > 0) {
            group.damage = {i, Describe(text[i]) + " follows padding within a group"};
            return group;
        }
        const auto six_bits = static_cast<uint32_t>(text[i] == '=' ? 0 : value);
        group.bits = group.bits << 6 | six_bits;
    }
    if (text.size() < kGroup) {
        group.damage = {text.size(), "the text ends within a group of four characters"};
        return group;
    }
    const uint32_t unused_bits = group.bits & ((1U << (8 * group.padding)) - 1);
    if (unused_bits != 0) {
        group.damage = {kGroup - 1 - group.padding,
                        "the character before the padding carries bits that must be 0"};
    }
    return group;
}

}  // namespace

DecodedDump DecodeDumpText(std::string_view text) {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    DecodedDump dump;
    dump.bytes.reserve(text.size() / kGroup * 3);
    for (size_t start = 0; start < text.size(); start += kGroup) {
        const Group group = ReadGroup(text.substr(start, kGroup));
        if (group.damage) {
            dump.damage = {start + group.damage->offset, group.damage->reason};
            break;
        }
        const std::array<uint8_t, 3> bytes{static_cast<uint8_t>(group.bits >> 16),
                                           static_cast<uint8_t>(group.bits >> 8),
                                           static_cast<uint8_t>(group.bits)};
        dump.bytes.insert(dump.bytes.end(), bytes.begin(),
                          bytes.end() - static_cast<std::ptrdiff_t>(group.padding));
        if (group.padding > 0) ++dump.padded_pieces;
    }
    return dump;
}

}  // namespace shdtool
