// Takes core dumps apart. Called by the dump show command.
#include "tools/shdtool/files/dump_analysis.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "tools/firmware/part.h"

namespace shdtool {
namespace {

using firmware::CoreDumpArea;
using firmware::CoreDumpHead;

bool IsPrintable(uint8_t byte) {
    return byte >= ' ' && byte <= '~';
}

template <typename Record>
std::optional<Record> Take(ByteSpan& bytes) {
    if (bytes.size() < sizeof(Record)) return std::nullopt;
    Record record{};
    std::memcpy(&record, bytes.data(), sizeof(record));
    bytes = bytes.subspan(sizeof(record));
    return record;
}

std::vector<DumpString> FindStrings(ByteSpan dump) {
    constexpr std::ptrdiff_t kLeast = 6;
    std::vector<DumpString> strings;
    for (auto at = dump.begin(); at != dump.end();) {
        const auto begin = std::find_if(at, dump.end(), IsPrintable);
        at = std::find_if_not(begin, dump.end(), IsPrintable);
        if (at - begin < kLeast) continue;
        strings.push_back({static_cast<size_t>(begin - dump.begin()), std::string(begin, at)});
    }
    return strings;
}

// ARMv7-M Architecture Reference Manual, B3.2.15 and B3.2.16.
constexpr FaultRegister::Bit kConfigurableFaults[] = {
    {0, "IACCVIOL", "instruction fetch from a forbidden address"},
    {1, "DACCVIOL", "data access to a forbidden address"},
    {3, "MUNSTKERR", "memory fault on return from an exception"},
    {4, "MSTKERR", "memory fault on entry to an exception"},
    {5, "MLSPERR", "memory fault while floating-point state was saved"},
    {7, "MMARVALID", "MMFAR is the address"},
    {8, "IBUSERR", "bus error on an instruction fetch"},
    {9, "PRECISERR", "bus error on the data access at pc"},
    {10, "IMPRECISERR", "bus error on an earlier data access"},
    {11, "UNSTKERR", "bus error on return from an exception"},
    {12, "STKERR", "bus error on entry to an exception"},
    {13, "LSPERR", "bus error while floating-point state was saved"},
    {15, "BFARVALID", "BFAR is the address"},
    {16, "UNDEFINSTR", "undefined instruction"},
    {17, "INVSTATE", "not in Thumb state"},
    {18, "INVPC", "invalid return from an exception"},
    {19, "NOCP", "coprocessor that is off or not there"},
    {24, "UNALIGNED", "unaligned access"},
    {25, "DIVBYZERO", "division by zero"},
};
constexpr FaultRegister::Bit kHardFaults[] = {
    {1, "VECTTBL", "the vector table could not be read"},
    {30, "FORCED", "another fault that could not be handled"},
    {31, "DEBUGEVT", "debug event while debugging is off"},
};

FaultRegister WithBits(const char* name, uint32_t value,
                       std::span<const FaultRegister::Bit> table) {
    FaultRegister made{name, value, true, {}};
    std::ranges::copy_if(table, std::back_inserter(made.bits),
                         [value](const auto& bit) { return (value >> bit.number & 1) != 0; });
    return made;
}

std::vector<std::pair<uint32_t, uint32_t>> ReturnAddresses(const DumpArea& stack) {
    std::vector<std::pair<uint32_t, uint32_t>> found;
    ByteSpan rest = stack.bytes;
    uint32_t at = stack.address;
    for (; const auto word = Take<uint32_t>(rest); at += sizeof(uint32_t)) {
        const bool in_flash = *word - firmware::kFlashBase < firmware::kFlashSizeBytes;
        if (in_flash && (*word & 1) != 0) found.emplace_back(at, *word);
    }
    return found;
}

}  // namespace

DumpAnalysis AnalyseDump(ByteSpan dump) {
    DumpAnalysis analysis;
    analysis.strings = FindStrings(dump);
    ByteSpan rest = dump;
    const auto head = Take<CoreDumpHead>(rest);
    if (!head || head->magic != firmware::kCoreDumpMagic ||
        head->version != firmware::kCoreDumpVersion) {
        return analysis;
    }
    analysis.head = head;
    if (head->size > dump.size()) analysis.missing_bytes = head->size - dump.size();
    while (const auto area = Take<CoreDumpArea>(rest)) {
        const size_t size = std::min<size_t>(area->bytes, rest.size());
        analysis.areas.push_back({area->address, rest.first(size)});
        rest = rest.subspan(size);
    }
    if (!analysis.areas.empty()) {
        analysis.return_addresses = ReturnAddresses(analysis.areas.front());
    }
    return analysis;
}

std::string_view ExceptionName(uint32_t exception) {
    constexpr std::string_view kNames[] = {"",           "reset",        "non-maskable interrupt",
                                           "hard fault", "memory fault", "bus fault",
                                           "usage fault"};
    return exception > 0 && exception < std::size(kNames) ? kNames[exception] : "no fault";
}

std::vector<std::pair<std::string, uint32_t>> Registers(const CoreDumpHead& head) {
    std::vector<std::pair<std::string, uint32_t>> registers;
    for (size_t i = 0; i < head.general.size(); ++i) {
        registers.emplace_back(fmt::format("r{}", i), head.general[i]);
    }
    registers.insert(registers.end(),
                     {{"sp", head.sp}, {"lr", head.lr}, {"pc", head.pc}, {"xpsr", head.xpsr}});
    return registers;
}

std::vector<FaultRegister> FaultRegisters(const CoreDumpHead& head) {
    return {WithBits("cfsr", head.cfsr, kConfigurableFaults),
            WithBits("hfsr", head.hfsr, kHardFaults),
            {"dfsr", head.dfsr, false, {}},
            {"mmfar", head.mmfar, false, {}},
            {"bfar", head.bfar, false, {}}};
}

std::string HexRows(ByteSpan bytes, uint32_t address) {
    constexpr size_t kRow = 16;
    std::string text;
    ByteSpan before;
    bool starred = false;
    for (size_t at = 0; at < bytes.size(); at += kRow) {
        const ByteSpan row = bytes.subspan(at, std::min(kRow, bytes.size() - at));
        const bool same = std::equal(row.begin(), row.end(), before.begin(), before.end());
        if (same && !starred) text += "*\n";
        starred = same;
        before = row;
        if (same) continue;
        std::string characters;
        for (const uint8_t byte : row) {
            characters += IsPrintable(byte) ? static_cast<char>(byte) : '.';
        }
        text += fmt::format("{:08x}  {:<47}  |{}|\n", address + static_cast<uint32_t>(at),
                            fmt::format("{:02x}", fmt::join(row, " ")), characters);
    }
    return text;
}

}  // namespace shdtool
