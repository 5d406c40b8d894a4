// shdtool dump show: registers, fault, stack, strings and bytes of a core dump. Called as a row of
// the dump commands.
#include "tools/shdtool/files/dump_show.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "tools/shdtool/files/dump_analysis.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/file_io.h"

namespace shdtool {
namespace {

using firmware::CoreDumpHead;
using shdclient::Result;

constexpr size_t kMostShown = 12;  // of a list, before "and N more"

// The registers by name, in the order of the dump.
std::vector<std::pair<std::string, uint32_t>> Registers(const CoreDumpHead& head) {
    std::vector<std::pair<std::string, uint32_t>> registers;
    for (size_t i = 0; i < head.general.size(); ++i) {
        registers.emplace_back(fmt::format("r{}", i), head.general[i]);
    }
    registers.insert(registers.end(),
                     {{"sp", head.sp}, {"lr", head.lr}, {"pc", head.pc}, {"xpsr", head.xpsr}});
    return registers;
}

void AddMore(std::string& text, size_t count) {
    if (count > kMostShown) text += fmt::format("  and {} more\n", count - kMostShown);
}

void AddFaults(std::string& text, const char* name, uint32_t word, const FaultBits& bits) {
    text += fmt::format("  {:<6} 0x{:08x}\n", name, word);
    for (const auto& [bit, meaning] : bits) text += fmt::format("    {:<12} {}\n", bit, meaning);
}

std::string HeadText(const CoreDumpHead& head) {
    std::string text = fmt::format("{} at pc 0x{:08x}\n", ExceptionName(head.exception), head.pc);
    AddFaults(text, "CFSR", head.cfsr, ConfigurableFaults(head.cfsr));
    AddFaults(text, "HFSR", head.hfsr, HardFaults(head.hfsr));
    AddFaults(text, "DFSR", head.dfsr, {});
    AddFaults(text, "MMFAR", head.mmfar, {});
    AddFaults(text, "BFAR", head.bfar, {});
    text += "registers\n";
    size_t column = 0;
    for (const auto& [name, value] : Registers(head)) {
        text += fmt::format("  {:<4} 0x{:08x}{}", name, value, ++column % 4 == 0 ? "\n" : "");
    }
    return text + "\n";
}

std::string AreasText(const DumpAnalysis& dump, bool hex) {
    std::string text;
    const char* name = "stack";
    for (const DumpArea& area : dump.areas) {
        text += fmt::format("{} 0x{:08x}, {} bytes\n", name, area.address, area.bytes.size());
        if (name == std::string_view("stack")) {
            const auto found = ReturnAddresses(area);
            for (size_t i = 0; i < std::min(found.size(), kMostShown); ++i) {
                text += fmt::format("  0x{:08x}: 0x{:08x}, perhaps a return address\n",
                                    found[i].first, found[i].second);
            }
            AddMore(text, found.size());
        }
        if (hex) text += HexRows(area.bytes, area.address);
        name = "memory";
    }
    return text;
}

std::string StringsText(const std::vector<DumpString>& strings) {
    std::string text = strings.empty() ? "no strings\n" : "strings\n";
    for (size_t i = 0; i < std::min(strings.size(), kMostShown); ++i) {
        text += fmt::format("  {:>6}  {}\n", strings[i].offset, strings[i].text);
    }
    AddMore(text, strings.size());
    return text;
}

Json HeadFields(const CoreDumpHead& head) {
    Json registers;
    for (const auto& [name, value] : Registers(head)) registers.Set(name, value);
    const auto names = [](const FaultBits& bits) {
        Json list = Json::List();
        for (const auto& bit : bits) list.Add(bit.first);
        return list;
    };
    return {{"exception", ExceptionName(head.exception)},
            {"registers", registers},
            {"fault_status",
             {{"cfsr", head.cfsr},
              {"hfsr", head.hfsr},
              {"dfsr", head.dfsr},
              {"mmfar", head.mmfar},
              {"bfar", head.bfar},
              {"cfsr_bits", names(ConfigurableFaults(head.cfsr))},
              {"hfsr_bits", names(HardFaults(head.hfsr))}}}};
}

Json FieldsOf(const std::string& path, ByteSpan bytes, const DumpAnalysis& dump) {
    Json fields{{"file", path},
                {"bytes", bytes.size()},
                {"layout", dump.head ? "simulated firmware" : "unknown"},
                {"missing_bytes", dump.missing_bytes}};
    if (dump.head) fields.Merge(HeadFields(*dump.head));
    Json areas = Json::List();
    for (const DumpArea& area : dump.areas) {
        areas.Add({{"address", area.address}, {"bytes", area.bytes.size()}});
    }
    Json addresses = Json::List();
    if (!dump.areas.empty()) {
        for (const auto& [at, value] : ReturnAddresses(dump.areas.front())) addresses.Add(value);
    }
    Json strings = Json::List();
    for (const DumpString& string : dump.strings) {
        strings.Add({{"offset", string.offset}, {"text", string.text}});
    }
    return fields.Merge({{"areas", areas}, {"return_addresses", addresses}, {"strings", strings}});
}

}  // namespace

Outcome ShowDump(Context& context, const std::string& path) {
    const Result<std::string> content = ReadWholeFile(path);
    if (!content) return content.error();
    // A file of base64 text is decoded; hardly any dump consists of its characters alone.
    DecodedDump decoded = DecodeDumpText(*content);
    std::vector<uint8_t> bytes(content->begin(), content->end());
    if (!decoded.damage) bytes = std::move(decoded.bytes);

    const DumpAnalysis dump = AnalyseDump(bytes);
    const bool hex = context.arguments.Has("--hex") || !dump.head;
    Report report{fmt::format(
        "{}: {} bytes, {}\n", path, bytes.size(),
        dump.head ? "in the simulated firmware's layout" : "in no layout that is known")};
    if (dump.missing_bytes > 0) {
        report.complaint =
            fmt::format("{} is cut off: {} bytes are missing", path, dump.missing_bytes);
        report.exit_status = kExitRefused;
    }
    if (dump.head) report.text += HeadText(*dump.head) + AreasText(dump, hex);
    report.text += StringsText(dump.strings);
    if (!dump.head) report.text += HexRows(bytes, 0);
    report.text.pop_back();
    report.fields = FieldsOf(path, bytes, dump);
    return report;
}

}  // namespace shdtool
