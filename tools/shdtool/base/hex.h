// Bytes as hexadecimal text, both ways. Used by the commands that take or show raw bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/client/result.h"

namespace shdtool {

// Reads pairs of hexadecimal digits in order of their address: "38 01 c8 fe", "3801C8FE" and
// "38:01:c8:fe" are the same four bytes; one 0x in front is allowed. Blanks, ':' and ',' may stand
// between bytes, not within one. Fails with kInvalidArgument and the position of the fault.
[[nodiscard]] shdclient::Result<std::vector<uint8_t>> ParseHex(std::string_view text);

// Two lower-case digits per byte, separated by blanks.
[[nodiscard]] std::string FormatHex(std::span<const uint8_t> bytes);

}  // namespace shdtool
