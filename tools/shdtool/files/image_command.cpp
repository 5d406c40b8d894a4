// The command lines "image build" and "image show" and their output. Called by main through
// AddImageCommands.
#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/firmware/image.h"
#include "tools/firmware/payload.h"
#include "tools/shdtool/commands.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/image_check.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

std::span<const uint8_t> BytesOf(const std::string& content) {
    return {reinterpret_cast<const uint8_t*>(content.data()), content.size()};
}

void PrintText(const std::string& path, const ImageReport& image) {
    fmt::print("{}: {} bytes\n", path, image.file_size);
    fmt::print("  magic       0x{:08x}\n", image.magic);
    fmt::print("  header_len  {}\n", image.header_len);
    fmt::print("  image_size  {}\n", image.image_size);
    fmt::print("  version     {}\n", Printable(image.version));
    fmt::print("  board code  {}\n", Printable(image.board_code));
    if (image.firmware_version.empty()) {
        fmt::print("  firmware    not the simulated MCU's, or damaged\n");
    } else {
        fmt::print("  firmware    simulated MCU, version {}\n", Printable(image.firmware_version));
    }
    for (const std::string& note : image.notes) fmt::print("  note: {}\n", note);
    for (const std::string& refusal : image.refusals) fmt::print("  refused: {}\n", refusal);
    if (image.refusals.empty()) fmt::print("The daemon accepts it.\n");
}

Json JsonOf(const char* command, const std::string& path, const ImageReport& image) {
    return {{"ok", image.refusals.empty()},
            {"command", command},
            {"file", path},
            {"file_size", image.file_size},
            {"magic", image.magic},
            {"header_len", image.header_len},
            {"image_size", image.image_size},
            {"version", Printable(image.version)},
            {"board_code", Printable(image.board_code)},
            {"firmware_version", Printable(image.firmware_version)},
            {"notes", image.notes},
            {"refusals", image.refusals}};
}

void PrintImage(Context& context, const char* command, const std::string& path,
                const ImageReport& image) {
    if (!image.refusals.empty()) context.exit_status = kExitRefused;
    if (context.json) return PrintJson(JsonOf(command, path, image));
    PrintText(path, image);
    if (image.refusals.empty()) return;
    (void)std::fflush(stdout);  // the report stands ahead of the error wherever both go
    fmt::print(stderr, "shdtool: the daemon would refuse {}: {}\n", path, image.refusals[0]);
}

struct BuildOptions {
    std::string version;
    std::string payload_path;
    bool simulated = false;
    size_t size = size_t{32} * 1024;  // bytes
    uint32_t seed = 1;
    std::string output;
};

Result<std::vector<uint8_t>> Payload(const BuildOptions& options) {
    if (options.simulated) {
        return firmware::BuildPayload(options.version, options.size, options.seed);
    }
    if (options.payload_path.empty()) {
        return Error{ErrorCode::kInvalidArgument,
                     "image build: give --payload FILE or --simulated-firmware"};
    }
    const Result<std::string> content = ReadWholeFile(options.payload_path);
    if (!content) return content.error();
    if (content->empty()) {
        return Error{ErrorCode::kInvalidArgument,
                     options.payload_path + " is empty; name the MCU's firmware"};
    }
    const auto bytes = BytesOf(*content);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

Result<std::vector<uint8_t>> BuildImage(const BuildOptions& options) {
    try {
        Result<std::vector<uint8_t>> payload = Payload(options);
        if (!payload) return payload;
        return firmware::WrapImage(options.version, *payload);
    } catch (const std::invalid_argument& error) {
        return Error{ErrorCode::kInvalidArgument, fmt::format("image build: {}", error.what())};
    }
}

void Build(Context& context, const BuildOptions& options) {
    constexpr const char* kCommand = "image build";
    const Result<std::vector<uint8_t>> image = BuildImage(options);
    if (!image) return Fail(context, kCommand, image.error());
    const shdclient::Status written = WriteWholeFile(options.output, *image);
    if (!written) return Fail(context, kCommand, written.error());
    PrintImage(context, kCommand, options.output, ExamineImage(*image));
}

void Show(Context& context, const std::string& path) {
    constexpr const char* kCommand = "image show";
    const Result<std::string> content = ReadWholeFile(path);
    if (!content) return Fail(context, kCommand, content.error());
    PrintImage(context, kCommand, path, ExamineImage(BytesOf(*content)));
}

void AddBuild(CLI::App& group, Context& context) {
    CLI::App* build = AddCommand(
        group, "build", "Put a header in front of an MCU firmware",
        "  shdtool image build --version 1.900.12 --payload firmware.bin -o mcu.bin\n"
        "  shdtool image build --version 1.900.13 --simulated-firmware --size 200k -o mcu.bin",
        "Exit status: 0 success, 1 written but nothing the daemon accepts, 2 not written.");
    const auto options = std::make_shared<BuildOptions>();
    const auto add = [build](const char* name, auto& value, const char* type, const char* help) {
        return build->add_option(name, value, help)->type_name(type);
    };
    add("--version", options->version, "TEXT", "Version text; behind its first '.' stands 900")
        ->required();
    CLI::Option* payload = add("--payload", options->payload_path, "FILE",
                               "Firmware, as it goes into the flash from 0x08000000 on");
    CLI::Option* simulated = build->add_flag("--simulated-firmware", options->simulated,
                                             "Make a firmware that the simulated MCU runs");
    simulated->excludes(payload);
    add("--size", options->size, "N", "Bytes of the simulated firmware, also as 200k (32k)")
        ->needs(simulated)
        ->transform(CLI::AsSizeValue(false).description(""));
    add("--seed", options->seed, "N", "Varies the simulated firmware's contents (1)")
        ->needs(simulated);
    add("-o,--output", options->output, "FILE", "Image file to write")->required();
    build->callback([&context, options] { Build(context, *options); });
}

void AddShow(CLI::App& group, Context& context) {
    CLI::App* show =
        AddCommand(group, "show", "Show every field of an image, and whether the daemon accepts it",
                   "  shdtool image show \"$SHD_ROOT/system/bin/mcu.bin\"",
                   "Exit status: 0 accepted, 1 refused, 2 unreadable.");
    const auto path = std::make_shared<std::string>();
    show->add_option("FILE", *path, "The image")->type_name("")->required();
    show->callback([&context, path] { Show(context, *path); });
}

}  // namespace

void AddImageCommands(CLI::App& app, Context& context) {
    CLI::App* group = AddCommand(app, "image", "Build and examine the firmware image mcu.bin",
                                 "  shdtool image show \"$SHD_ROOT/system/bin/mcu.bin\"");
    group->require_subcommand(1);
    AddBuild(*group, context);
    AddShow(*group, context);
}

}  // namespace shdtool
