// What the bytes of a core dump say: of one in the simulated firmware's layout the registers, the
// fault and the stack, of any other its strings. Used by the dump show command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/firmware/core_dump.h"

namespace shdtool {

using ByteSpan = std::span<const uint8_t>;

struct DumpArea {
    uint32_t address;
    ByteSpan bytes;  // as many as the dump has; it may be cut off
};

struct DumpString {
    size_t offset;  // in the dump
    std::string text;
};

struct DumpAnalysis {
    std::optional<firmware::CoreDumpHead> head;  // empty: another layout
    std::vector<DumpArea> areas;                 // the first one is the stack
    size_t missing_bytes = 0;                    // that the head speaks of
    std::vector<DumpString> strings;             // at least six printable characters
};

// Takes any bytes. The result points into them.
[[nodiscard]] DumpAnalysis AnalyseDump(ByteSpan dump);

// "hard fault".
[[nodiscard]] std::string_view ExceptionName(uint32_t exception);

// The names of the bits that are set, as the architecture's manual has them, with their meaning.
using FaultBits = std::vector<std::pair<std::string_view, std::string_view>>;
[[nodiscard]] FaultBits ConfigurableFaults(uint32_t cfsr);
[[nodiscard]] FaultBits HardFaults(uint32_t hfsr);

// The words of an area that can be return addresses: odd and within the part's flash; with the
// addresses at which they lie.
[[nodiscard]] std::vector<std::pair<uint32_t, uint32_t>> ReturnAddresses(const DumpArea& area);

// Rows of 16 bytes, each with the address of its first one and their characters, every one with a
// line end; rows that repeat the one before them are one "*".
[[nodiscard]] std::string HexRows(ByteSpan bytes, uint32_t address);

}  // namespace shdtool
