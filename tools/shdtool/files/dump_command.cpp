// shdtool dump list, show and decode: the MCU's core dumps. Rows of the table of commands; they
// need no daemon.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "tools/client/local_socket.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/files/dump_show.h"
#include "tools/shdtool/files/dump_store.h"
#include "tools/shdtool/files/dump_text.h"
#include "tools/shdtool/files/file_io.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

Json FileFields(const std::string& path, const std::optional<DumpFile>& file) {
    if (!file) return nullptr;
    return {{"path", path}, {"size", file->size}, {"modified", file->modified}};
}

std::string SizeColumn(const std::optional<DumpFile>& file) {
    return fmt::format("{:>9}", file ? std::to_string(file->size) : "-");
}

Outcome ListDumps(Context& context) {
    const std::string directory = shdclient::PathBelow(context.root, shd::kDumpDir);
    if (access(directory.c_str(), X_OK) != 0 && errno != ENOENT && errno != ENOTDIR) {
        return Error{ErrorCode::kInvalidArgument,
                     fmt::format("cannot read {}: {}", directory, std::strerror(errno))};
    }
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        return Error{ErrorCode::kInvalidArgument,
                     fmt::format("there is no directory {}; without it the daemon stores no dumps",
                                 directory)};
    }
    Report report{fmt::format("SLOT  RAW BYTES  {:>9}  {:<19}  CHECK", "BASE64", "WRITTEN")};
    Json slots = Json::List();
    int number = 0;
    size_t found = 0;
    for (const DumpSlot& slot : ReadDumpSlots(context.root)) {
        const int slot_number = number++;
        if (slot.empty()) continue;
        ++found;
        const DumpVerdict verdict = CompareDumpFiles(slot);
        const std::string head =
            fmt::format("{:>4}  {}  {}  {}  ", slot_number, SizeColumn(slot.raw),
                        SizeColumn(slot.text), FormatFileTime(slot.written()));
        report.text += "\n" + head + Fit(verdict.text, head.size());
        slots.Add({{"slot", slot_number},
                   {"raw", FileFields(slot.raw_path, slot.raw)},
                   {"base64", FileFields(slot.text_path, slot.text)},
                   {"intact", verdict.intact},
                   {"check", verdict.text}});
    }
    if (found == 0) report.text = "no core dumps in " + directory;
    report.fields = {{"directory", directory}, {"slots", slots}};
    return report;
}

// FILE as it is; or when no such file exists and it is the number of a slot, that slot's text, or
// its raw file when that is wanted and there.
std::string ResolveFile(const Context& context, bool raw) {
    std::string file = context.arguments.Text("FILE");
    const bool is_slot = file.size() == 1 && file[0] >= '0' && file[0] < '0' + kDumpSlots;
    std::error_code error;
    if (!is_slot || std::filesystem::exists(file, error)) return file;
    const DumpSlot slot = ReadDumpSlots(context.root)[static_cast<size_t>(file[0] - '0')];
    return raw && (slot.raw || !slot.text) ? slot.raw_path : slot.text_path;
}

Outcome Show(Context& context) {
    return ShowDump(context, ResolveFile(context, true));
}

std::string DamageText(const std::string& path, const DecodedDump& dump, size_t text_size) {
    return fmt::format("{} is damaged at character {} of {}: {}; the {} bytes before it are sound",
                       path, dump.damage->offset, text_size, dump.damage->reason,
                       dump.bytes.size());
}

// Where the bytes go: a file, or standard output unless that is a terminal or holds JSON.
Result<std::string> Deliver(const Context& context, const std::string& output,
                            const std::vector<uint8_t>& bytes) {
    if (!output.empty()) {
        const shdclient::Status written = WriteWholeFile(output, bytes);
        if (!written) return written.error();
        return "written to " + output;
    }
    if (context.json || isatty(STDOUT_FILENO) == 1) {
        return std::string("not written; name a file with -o");
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
        std::fflush(stdout) != 0) {
        return Error{ErrorCode::kSystem, "cannot write to standard output"};
    }
    return std::string("written to standard output");
}

Outcome Decode(Context& context) {
    const std::string path = ResolveFile(context, false);
    const std::string output = context.arguments.Text("--output");
    const Result<std::string> text = ReadWholeFile(path);
    if (!text) return text.error();
    const DecodedDump dump = DecodeDumpText(*text);
    const Result<std::string> delivery = Deliver(context, output, dump.bytes);
    if (!delivery) return delivery.error();

    const std::string summary =
        fmt::format("{}: {} bytes decoded, {}", path, dump.bytes.size(), *delivery);
    Report report{.text = summary,
                  .fields = {{"file", path},
                             {"bytes", dump.bytes.size()},
                             {"output", output},
                             {"padded_pieces", dump.padded_pieces}}};
    if (output.empty() && !context.json) {  // standard output has the bytes
        Say(stderr, summary);
        report.text.clear();
    }
    if (!dump.damage) return report;
    report.exit_status = kExitRefused;
    report.complaint = DamageText(path, dump, text->size());
    report.fields.Set("damage", {{"offset", dump.damage->offset}, {"reason", dump.damage->reason}});
    return report;
}

}  // namespace

CommandRows DumpCommands() {
    constexpr const char* kHeading = "Files";
    return {
        {{kHeading,
          "dump",
          "List, show and decode the MCU's core dumps",
          {},
          "",
          "shdtool dump list\nshdtool dump show 0"}},
        {{kHeading,
          "dump list",
          "List the slots with size, time and whether the two files of each agree",
          {},
          "",
          "shdtool dump list"},
         ListDumps},
        {{kHeading,
          "dump show",
          "Show the registers, the fault, the stack and the strings of a dump",
          {cli::File("FILE", "", "A dump, raw or as base64 text, or the number of a slot (0 to 5)")
               .Words("0 1 2 3 4 5")
               .Required(),
           cli::Flag("--hex", "Show all bytes of its memory, too")},
          "A dump in the layout of the simulated firmware is taken apart; of any other the strings "
          "and the bytes are shown.\n"
          "Exit status: 0 shown, 1 shown but cut off, 2 unreadable.",
          "shdtool dump show 0\n"
          "shdtool dump show crash.bin --hex | less"},
         Show},
        {{kHeading,
          "dump decode",
          "Turn the base64 text of a dump back into its bytes",
          {cli::File("FILE", "", "The text, or the number of a slot (0 to 5)")
               .Words("0 1 2 3 4 5")
               .Required(),
           cli::NewFile("-o,--output", "OUT",
                        "Write the bytes to this file instead of standard output")},
          "A damaged text is decoded up to the damage and its place is named; the exit status is "
          "then 1. The files mcudump_N hold the raw bytes already.",
          "shdtool dump decode \"$SHD_ROOT/data/mcudumplog/mcudumpbase64.1\" -o crash.bin\n"
          "shdtool dump decode 0 | od -Ax -tx1z | less"},
         Decode},
    };
}

}  // namespace shdtool
