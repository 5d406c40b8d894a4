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

#include "tools/firmware/dump_layout.h"

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
    // Words of the stack that can be return addresses: odd and within the part's flash; with the
    // addresses at which they lie.
    std::vector<std::pair<uint32_t, uint32_t>> return_addresses;
    size_t missing_bytes = 0;         // that the head speaks of
    std::vector<DumpString> strings;  // at least six printable characters
};

// Takes any bytes. The result points into them.
[[nodiscard]] DumpAnalysis AnalyseDump(ByteSpan dump);

// "hard fault".
[[nodiscard]] std::string_view ExceptionName(uint32_t exception);

// The core's registers by name, in the order of the dump.
[[nodiscard]] std::vector<std::pair<std::string, uint32_t>> Registers(
    const firmware::CoreDumpHead& head);

// A register of the fault status, and the bits that are set in it as the architecture's manual
// names them.
struct FaultRegister {
    struct Bit {
        int number;
        std::string_view name;
        std::string_view meaning;
    };
    const char* name;
    uint32_t value;
    bool has_bits;  // else it is an address, or its bits say nothing of the fault
    std::vector<Bit> bits;
};
[[nodiscard]] std::vector<FaultRegister> FaultRegisters(const firmware::CoreDumpHead& head);

// Rows of 16 bytes, each with the address of its first one and their characters, every one with a
// line end; rows that repeat the one before them are one "*".
[[nodiscard]] std::string HexRows(ByteSpan bytes, uint32_t address);

}  // namespace shdtool
