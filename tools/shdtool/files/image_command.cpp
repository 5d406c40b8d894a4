// The command lines "image build" and "image show" and their output. Rows of the table of
// commands.
#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"
#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/image_check.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

// What is shown of an image: a row of the text, a field of the object.
struct Row {
    const char* label;
    const char* field;
    std::string text;
    Json value;
};

std::vector<Row> RowsOf(const ImageReport& image) {
    const auto hex = [](uint32_t word) { return fmt::format("0x{:08x}", word); };
    const std::string version = Printable(image.version);
    const std::string board = Printable(image.board_code);
    const std::string simulated = Printable(image.firmware_version);
    const bool known = image.vectors.has_value();
    const auto [stack, reset] = image.vectors.value_or(firmware::Vectors{});
    return {
        {"sha256", "sha256", image.sha256, image.sha256},
        {"magic", "magic", hex(image.magic), image.magic},
        {"header_len", "header_len", std::to_string(image.header_len), image.header_len},
        {"image_size", "image_size", std::to_string(image.image_size), image.image_size},
        {"version", "version", version, version},
        {"board code", "board_code", board, board},
        {"stack", "stack_pointer", known ? hex(stack) : "none", known ? Json(stack) : Json()},
        {"reset", "reset_vector", known ? hex(reset) : "none", known ? Json(reset) : Json()},
        {"firmware", "firmware_version",
         simulated.empty() ? "not the simulated MCU's, or damaged"
                           : "simulated MCU, version " + simulated,
         simulated},
    };
}

Report ReportOf(const std::string& path, const ImageReport& image) {
    Report report{fmt::format("{}: {} bytes", path, image.file_size),
                  {{"file", path}, {"file_size", image.file_size}}};
    for (const auto& [label, field, text, value] : RowsOf(image)) {
        report.text += fmt::format("\n  {:<11} {}", label, text);
        report.fields.Set(field, value);
    }
    for (const std::string& note : image.notes) report.text += "\n  note: " + Fit(note, 8);
    for (const std::string& fault : image.wrong()) report.text += "\n  FAULT: " + Fit(fault, 9);
    report.text += image.good() ? "\nThe image is good." : "\nThe image is NOT good.";
    report.fields.Merge({{"faults", Json::List(image.faults)},
                         {"size_fault", image.size_fault},
                         {"notes", Json::List(image.notes)},
                         {"refusals", Json::List(image.refusals)}});
    if (image.good()) return report;
    report.exit_status = kExitRefused;
    report.complaint = fmt::format("{} is not good: {}", path, image.worst());
    return report;
}

// The version of the running firmware, as far as somebody knows it.
std::optional<std::string> McuVersion(const Context& context) {
    const cli::Arguments& arguments = context.arguments;
    if (arguments.Has("--mcu-version")) return arguments.Text("--mcu-version");
    if (arguments.Has("--no-probe")) return std::nullopt;
    Result<shdclient::HubClient> hub = ConnectHub(context);
    if (!hub) return std::nullopt;
    const Result<std::string> version = hub->Version(0);
    return version ? std::optional(*version) : std::nullopt;
}

Result<std::vector<uint8_t>> Payload(const cli::Arguments& arguments) {
    if (arguments.Has("--simulated-firmware")) {
        return firmware::BuildPayload(arguments.Text("--version"),
                                      static_cast<size_t>(arguments.Integer("--size")),
                                      static_cast<uint32_t>(arguments.Integer("--seed")));
    }
    if (!arguments.Has("--payload")) {
        return WrongUsage("image build: give --payload FILE or --simulated-firmware");
    }
    const Result<std::string> content = ReadWholeFile(arguments.Text("--payload"));
    if (!content) return content.error();
    const auto bytes = BytesOf(*content);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

Result<std::vector<uint8_t>> BuildImage(const cli::Arguments& arguments) {
    try {
        Result<std::vector<uint8_t>> payload = Payload(arguments);
        if (!payload) return payload;
        return firmware::WrapImage(arguments.Text("--version"), *payload);
    } catch (const std::invalid_argument& error) {
        return Error{ErrorCode::kInvalidArgument, fmt::format("image build: {}", error.what())};
    }
}

Outcome Build(Context& context) {
    const std::string output = context.arguments.Text("--output");
    const Result<std::vector<uint8_t>> image = BuildImage(context.arguments);
    if (!image) return image.error();
    std::error_code none;
    if (!context.arguments.Has("--force") && std::filesystem::exists(output, none)) {
        return WrongUsage(
            fmt::format("image build: {} is there already; --force replaces it", output));
    }
    const shdclient::Status written = WriteWholeFile(output, *image);
    if (!written) return written.error();
    return ReportOf(output, ExamineImage(*image));
}

Outcome Show(Context& context) {
    const std::string path = context.arguments.Text("FILE");
    const Result<std::string> content = ReadWholeFile(path);
    if (!content) return content.error();
    const ImageReport image = ExamineImage(BytesOf(*content));
    const std::string decision = DaemonDecision(image, McuVersion(context));
    Report report = ReportOf(path, image);
    report.text += "\n" + Fit(fmt::format("At its next start the daemon {}.", decision), 2);
    report.fields.Set("daemon", decision);
    return report;
}

const cli::Options kBuildOptions{
    cli::Text("--version", "TEXT", "Version text; behind its first '.' stands 900").Required(),
    cli::File("--payload", "FILE", "Firmware, as it goes into the flash from 0x08000000 on")
        .Excludes("--simulated-firmware"),
    cli::Flag("--simulated-firmware", "Make a firmware that the simulated MCU runs"),
    {.name = "--size",
     .kind = cli::Kind::kBytes,
     .value = "N",
     .help = "Bytes of the simulated firmware, also as 200k",
     .max = 1 << 30,
     .standard = "32k",
     .needs = "--simulated-firmware"},
    cli::Integer("--seed", "N", "Varies the simulated firmware's contents", 0, UINT32_MAX)
        .Standard("1")
        .Needs("--simulated-firmware"),
    cli::NewFile("-o,--output", "FILE", "Image file to write").Required(),
    cli::Flag("--force", "Replace the file when there is one"),
};

}  // namespace

CommandRows ImageCommands() {
    constexpr const char* kHeading = "Files";
    constexpr const char* kShow = "shdtool image show \"$SHD_ROOT/system/bin/mcu.bin\"";
    return {
        {{kHeading, "image", "Build and examine the firmware image mcu.bin", {}, "", kShow}},
        {{kHeading, "image build", "Put a header in front of an MCU firmware", kBuildOptions,
          "Exit status: 0 success, 1 written but not good, 2 not written.",
          "shdtool image build --version 1.900.12 --payload firmware.bin -o mcu.bin\n"
          "shdtool image build --version 1.900.13 --simulated-firmware -o mcu.bin"},
         Build},
        {{kHeading,
          "image show",
          "Say whether an image is good, and what the daemon will do with it",
          {cli::File("FILE", "", "The image").Required(),
           cli::Flag("--no-probe", "Do not ask a running hub for the MCU's version"),
           cli::Text("--mcu-version", "TEXT",
                     "Take this for the MCU's version; \"\" is an MCU that does not tell it")
               .Excludes("--no-probe")},
          "An image is good when the daemon takes its header and the payload can run: it is not "
          "blank, has no second header, and its stack pointer and reset vector lie in the memory "
          "of the part, an STM32F411xE.\n"
          "Exit status: 0 good, 1 not good, 2 unreadable.",
          kShow},
         Show},
    };
}

}  // namespace shdtool
