// The command lines "image build" and "image show" and their output. Called by main through
// AddImageCommands.
#include "tools/shdtool/image_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tools/mcusim/firmware_image.h"
#include "tools/shdtool/image_check.h"

namespace shdtool {
namespace {

using Bytes = std::vector<uint8_t>;
using Json = nlohmann::ordered_json;

constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;
constexpr uintmax_t kMaxFileBytes = 64 << 20;  // far beyond any microcontroller's flash

template <typename... Args>
[[noreturn]] void Fail(int status, fmt::format_string<Args...> format, Args&&... args) {
    (void)std::fflush(stdout);  // a report stands ahead of its error wherever both go
    fmt::print(stderr, "shdtool: {}\n", fmt::format(format, std::forward<Args>(args)...));
    throw CLI::RuntimeError(status);
}

Bytes ReadWholeFile(const std::string& path) {
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error) Fail(kExitUsage, "cannot read {}: {}; name a regular file", path, error.message());
    if (size > kMaxFileBytes) {
        Fail(kExitUsage, "{} has {} bytes, a firmware at most {}", path, size, kMaxFileBytes);
    }
    std::ifstream in(path, std::ios::binary);
    Bytes data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.is_open() || data.size() != size) {
        Fail(kExitUsage, "cannot read {}: {}; check its permissions", path, std::strerror(errno));
    }
    return data;
}

// By way of a second file, so that whoever reads the image meanwhile sees the old or the new one.
void WriteWholeFile(const std::string& path, const Bytes& data) {
    const std::string part = path + ".part";
    std::error_code error;
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    std::copy(data.begin(), data.end(), std::ostreambuf_iterator<char>(out));
    out.close();
    if (out) {
        std::filesystem::rename(part, path, error);
    } else {
        error.assign(errno, std::generic_category());
    }
    if (!error) return;
    std::error_code ignored;
    std::filesystem::remove(part, ignored);
    Fail(kExitUsage, "cannot write {}: {}; check the path given with -o", path, error.message());
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

void PrintJson(const char* command, const std::string& path, const ImageReport& image) {
    const Json object{{"ok", image.refusals.empty()},
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
    fmt::print("{}\n", object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void Report(const CLI::App& app, const char* command, const std::string& path,
            const ImageReport& image) {
    const CLI::Option* json = app.get_option_no_throw("--json");
    if (json != nullptr && json->count() > 0) {
        PrintJson(command, path, image);
    } else {
        PrintText(path, image);
    }
    if (!image.refusals.empty()) {
        Fail(kExitRefused, "the daemon would refuse {}: {}", path, image.refusals[0]);
    }
}

struct BuildOptions {
    std::string version;
    std::string payload_path;
    bool simulated = false;
    size_t size = 32 * 1024;  // bytes
    uint32_t seed = 1;
    std::string output;
};

Bytes BuildImage(const BuildOptions& options) {
    if (options.simulated) {
        return mcusim::WrapImage(options.version, mcusim::BuildFirmwarePayload(
                                                      options.version, options.size, options.seed));
    }
    if (options.payload_path.empty()) {
        Fail(kExitUsage, "image build: give --payload FILE or --simulated-firmware");
    }
    const Bytes payload = ReadWholeFile(options.payload_path);
    if (payload.empty()) {
        Fail(kExitUsage, "{} is empty; name the MCU's firmware", options.payload_path);
    }
    return mcusim::WrapImage(options.version, payload);
}

void Build(const CLI::App& app, const BuildOptions& options) {
    Bytes image;
    try {
        image = BuildImage(options);
    } catch (const std::invalid_argument& error) {
        Fail(kExitUsage, "image build: {}", error.what());
    }
    WriteWholeFile(options.output, image);
    Report(app, "image build", options.output, ExamineImage(image));
}

void AddBuild(CLI::App& app, CLI::App& group) {
    CLI::App* build = group.add_subcommand("build", "Put a header in front of an MCU firmware");
    build->footer(
        "Exit status: 0 success, 1 written but nothing the daemon accepts, 2 not written.\n"
        "Examples:\n"
        "  shdtool image build --version 1.900.12 --payload firmware.bin -o mcu.bin\n"
        "  shdtool image build --version 1.900.13 --simulated-firmware --size 200k -o mcu.bin");
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
    build->callback([&app, options] { Build(app, *options); });
}

void AddShow(CLI::App& app, CLI::App& group) {
    CLI::App* show = group.add_subcommand(
        "show", "Show every field of an image, and whether the daemon would accept it");
    show->footer(
        "Exit status: 0 accepted, 1 refused, 2 unreadable.\n"
        "Example:\n"
        "  shdtool image show mcu.bin");
    const auto path = std::make_shared<std::string>();
    show->add_option("FILE", *path, "The image")->type_name("")->required();
    show->callback(
        [&app, path] { Report(app, "image show", *path, ExamineImage(ReadWholeFile(*path))); });
}

}  // namespace

void AddImageCommands(CLI::App& app) {
    CLI::App* group = app.add_subcommand("image", "Build and examine the firmware image mcu.bin");
    group->require_subcommand(1);
    group->footer("Example:\n  shdtool image show \"$SHD_ROOT/system/bin/mcu.bin\"");
    AddBuild(app, *group);
    AddShow(app, *group);
}

}  // namespace shdtool
