// Decoding of the base64 text of a core dump. Used by the dump commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

struct TextDamage {
    size_t offset;  // of the first character that cannot stand there
    std::string reason;
};

struct DecodedDump {
    std::vector<uint8_t> bytes;  // up to the damage, if there is one
    size_t padded_pieces = 0;    // pieces that end in padding; the others leave no trace
    std::optional<TextDamage> damage;
};

// Decodes base64 (RFC 4648, section 4) in which every piece was padded on its own, so that padding
// may stand anywhere between two groups of four characters. Line ends are allowed at the very end
// only, where tools that move text around leave them. Everything else that the daemon cannot have
// written is damage: foreign characters, padding within a group, unused bits that are not 0, an
// incomplete last group. Decoding ends there, because what follows may be shifted.
[[nodiscard]] DecodedDump DecodeDumpText(std::string_view text);

}  // namespace shdtool
