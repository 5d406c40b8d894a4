// shdtool dump list and dump decode: the MCU's core dumps. Called by main; they need no daemon.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "tools/client/local_socket.h"
#include "tools/shdtool/commands.h"
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

std::string FileColumns(const std::optional<DumpFile>& file) {
    if (!file) return fmt::format("{:>9}  {:<19}", "-", "-");
    return fmt::format("{:>9}  {:<19}", file->size, FormatFileTime(file->modified));
}

Result<Report> ListDumps(const Context& context) {
    const std::string directory = shdclient::PathBelow(context.root, shd::kDumpDir);
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        return Error{ErrorCode::kInvalidArgument,
                     fmt::format("there is no directory {}; without it the daemon stores no dumps",
                                 directory)};
    }
    Report report;
    report.fields = {{"directory", directory}, {"slots", Json::array()}};
    report.line = fmt::format("SLOT  {:>9}  {:<19}  {:>9}  {:<19}  CHECK", "RAW BYTES", "WRITTEN",
                              "BASE64", "WRITTEN");
    int number = 0;
    size_t found = 0;
    for (const DumpSlot& slot : ReadDumpSlots(context.root)) {
        const int slot_number = number++;
        if (slot.empty()) continue;
        ++found;
        const DumpVerdict verdict = CompareDumpFiles(slot);
        report.line += fmt::format("\n{:>4}  {}  {}  {}", slot_number, FileColumns(slot.raw),
                                   FileColumns(slot.text), verdict.text);
        report.fields["slots"].push_back({{"slot", slot_number},
                                          {"raw", FileFields(slot.raw_path, slot.raw)},
                                          {"base64", FileFields(slot.text_path, slot.text)},
                                          {"intact", verdict.intact},
                                          {"check", verdict.text}});
    }
    if (found == 0) report.line = "no core dumps in " + directory;
    return report;
}

// FILE as it is, or the base64 file of a slot when it is the slot's number and no such file exists.
std::string ResolveFile(const Context& context, const std::string& file) {
    const bool is_slot = file.size() == 1 && file[0] >= '0' && file[0] < '0' + kDumpSlots;
    std::error_code error;
    if (!is_slot || std::filesystem::exists(file, error)) return file;
    return ReadDumpSlots(context.root)[static_cast<size_t>(file[0] - '0')].text_path;
}

struct DecodeArguments {
    std::string file;
    std::string output;
};

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

void Decode(Context& context, const DecodeArguments& arguments) {
    constexpr const char* kCommand = "dump decode";
    const std::string path = ResolveFile(context, arguments.file);
    const Result<std::string> text = ReadWholeFile(path);
    if (!text) return Fail(context, kCommand, text.error());
    const DecodedDump dump = DecodeDumpText(*text);
    const Result<std::string> delivery = Deliver(context, arguments.output, dump.bytes);
    if (!delivery) return Fail(context, kCommand, delivery.error());

    const std::string summary =
        fmt::format("{}: {} bytes decoded, {}", path, dump.bytes.size(), *delivery);
    if (dump.damage) context.exit_status = kExitRefused;
    if (context.json) {
        Json object{{"ok", !dump.damage},
                    {"command", kCommand},
                    {"file", path},
                    {"bytes", dump.bytes.size()},
                    {"output", arguments.output},
                    {"padded_pieces", dump.padded_pieces}};
        if (dump.damage) {
            object["damage"] = {{"offset", dump.damage->offset}, {"reason", dump.damage->reason}};
        }
        return PrintJson(object);
    }
    fmt::print(arguments.output.empty() ? stderr : stdout, "{}\n", summary);
    if (dump.damage) {
        fmt::print(stderr, "shdtool: {}\n", DamageText(path, dump, text->size()));
    }
}

void AddDecode(CLI::App& dump, Context& context) {
    CLI::App* decode = AddCommand(
        dump, "decode", "Turn the base64 text of a dump back into its bytes",
        "  shdtool dump decode \"$SHD_ROOT/data/mcudumplog/mcudumpbase64.1\" -o crash.bin\n"
        "  shdtool dump decode 0 | od -Ax -tx1z | less",
        "A damaged text is decoded up to the damage and its place is named; the exit "
        "status is then 1.\n"
        "The files mcudump_N hold the raw bytes already.");
    auto arguments = std::make_shared<DecodeArguments>();
    decode->add_option("FILE", arguments->file, "the text, or the number of a slot (0 to 5)")
        ->required()
        ->type_name("");
    decode
        ->add_option("-o,--output", arguments->output,
                     "Write the bytes to this file instead of standard output")
        ->type_name("OUT");
    decode->callback([&context, arguments] { Decode(context, *arguments); });
}

}  // namespace

void AddDumpCommands(CLI::App& app, Context& context) {
    CLI::App* dump = AddCommand(app, "dump", "List and decode the MCU's core dumps",
                                "  shdtool dump list\n  shdtool dump decode 0 -o crash.bin");
    dump->require_subcommand(1);
    CLI::App* list = AddCommand(
        *dump, "list", "List the slots with size, time and whether the two files of each agree",
        "  shdtool dump list");
    list->callback(
        [&context] { Run(context, "dump list", [&context] { return ListDumps(context); }); });
    AddDecode(*dump, context);
}

}  // namespace shdtool
