// shdtool dump show: registers, fault, stack, strings and bytes of a core dump. Called as a row of
// the dump commands.
#include "tools/shdtool/files/dump_show.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "tools/shdtool/files/dump_analysis.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/file_io.h"

namespace shdtool {
namespace {

using firmware::CoreDumpHead;
using shdclient::Result;

constexpr size_t kMostShown = 12;  // of a list, before "and N more"

std::string Upper(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

// As many of the rows as are looked at, and how many more there are.
std::string FirstRows(const std::vector<std::string>& rows) {
    const size_t shown = std::min(rows.size(), kMostShown);
    std::string text;
    for (size_t i = 0; i < shown; ++i) text += fmt::format("  {}\n", rows[i]);
    return rows.size() == shown ? text : text + fmt::format("  and {} more\n", rows.size() - shown);
}

// Says what the head tells, and adds the same to the fields.
std::string TellHead(const CoreDumpHead& head, Json& fields) {
    std::string text = fmt::format("{} at pc 0x{:08x}\n", ExceptionName(head.exception), head.pc);
    Json status;
    for (const FaultRegister& fault : FaultRegisters(head)) {
        text += fmt::format("  {:<6} 0x{:08x}\n", Upper(fault.name), fault.value);
        status.Set(fault.name, fault.value);
        Json names = Json::List();
        for (const auto& [number, name, meaning] : fault.bits) {
            text += fmt::format("    {:<12} {}\n", name, meaning);
            names.Add(name);
        }
        if (fault.has_bits) status.Set(fmt::format("{}_bits", fault.name), names);
    }
    text += "registers\n";
    Json registers;
    size_t column = 0;
    for (const auto& [name, value] : Registers(head)) {
        text += fmt::format("  {:<4} 0x{:08x}{}", name, value, ++column % 4 == 0 ? "\n" : "");
        registers.Set(name, value);
    }
    fields.Merge({{"exception", ExceptionName(head.exception)},
                  {"registers", registers},
                  {"fault_status", status}});
    return text + "\n";
}

std::string TellAreas(const DumpAnalysis& dump, bool hex, Json& fields) {
    std::vector<std::string> rows;
    Json addresses = Json::List();
    for (const auto& [at, value] : dump.return_addresses) {
        rows.push_back(fmt::format("0x{:08x}: 0x{:08x}, perhaps a return address", at, value));
        addresses.Add(value);
    }
    std::string text;
    Json areas = Json::List();
    for (const DumpArea& area : dump.areas) {
        const bool stack = &area == dump.areas.data();
        text += fmt::format("{} 0x{:08x}, {} bytes\n", stack ? "stack" : "memory", area.address,
                            area.bytes.size());
        if (stack) text += FirstRows(rows);
        if (hex) text += HexRows(area.bytes, area.address);
        areas.Add({{"address", area.address}, {"bytes", area.bytes.size()}});
    }
    fields.Set("areas", areas).Set("return_addresses", addresses);
    return text;
}

std::string TellStrings(const std::vector<DumpString>& strings, Json& fields) {
    std::vector<std::string> rows;
    Json list = Json::List();
    for (const auto& [offset, text] : strings) {
        rows.push_back(fmt::format("{:>6}  {}", offset, text));
        list.Add({{"offset", offset}, {"text", text}});
    }
    fields.Set("strings", list);
    return rows.empty() ? "no strings\n" : "strings\n" + FirstRows(rows);
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
    const bool hex = context.arguments.Has("--hex");
    Report report{fmt::format("{}\n  {} bytes, {}\n", path, bytes.size(),
                              dump.head ? "in the simulated firmware's layout"
                                        : "in no layout that is known"),
                  {{"file", path},
                   {"bytes", bytes.size()},
                   {"layout", dump.head ? "simulated firmware" : "unknown"},
                   {"missing_bytes", dump.missing_bytes}}};
    if (dump.head) report.text += TellHead(*dump.head, report.fields);
    report.text += TellAreas(dump, hex, report.fields) + TellStrings(dump.strings, report.fields);
    if (!dump.head) report.text += HexRows(bytes, 0);
    report.text.pop_back();
    if (dump.missing_bytes > 0) {
        report.complaint =
            fmt::format("{} is cut off: {} bytes are missing", path, dump.missing_bytes);
        report.exit_status = kExitRefused;
    }
    return report;
}

}  // namespace shdtool
