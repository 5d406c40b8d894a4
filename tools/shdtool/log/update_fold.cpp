// The lines of a firmware update. Called by the log folder.
#include "tools/shdtool/log/update_fold.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "update_mcu/bootloader_link.h"

namespace shdtool {
namespace {

constexpr int64_t kBlockBytes = 256;
constexpr int32_t kNack = 0x1F;  // AN3155

// What one block costs: command, address and data with their acknowledgements, 11 bits a byte at
// 115,200 bit/s, and the programming of 64 words, 16 us each on an STM32F4.
constexpr double kBlockMs = (2 + 5 + (1 + kBlockBytes + 1) + 3) * 11 / 115.2 + 64 * 0.016;

struct FaultText {
    std::string_view words;
    std::string_view fault;
};
constexpr FaultText kFaults[] = {
    {"open update tty device error", "the UART could not be opened"},
    {"write 7F cmd error", "the UART took no bytes"},
    {"mcu init over 3 times", "the bootloader did not answer in 20 attempts"},
    {"write mcu_send_cmd error", "the UART took no bytes"},
    {"read mcu_send_cmd error", "the UART could not be read"},
    {"stat file settings error", "the image is missing"},
    {"fopen mcu file error", "the image could not be opened"},
    {"file size error, file_size", "the image's size is not what its header says"},
    {"file size error", "the image is too large"},
    {"file_buf malloc fail", "there was no memory for the image"},
    {"target mcu header get error", "the image's header could not be read"},
};
constexpr std::string_view kTold[] = {
    "open_mcu_tty error",      "handshake over 5 times",         "write extended erase fail",
    "write erase all fail",    "write_memory_cmd current error", "write_memory_cmd last error",
    "mcu serial select error",
};

}  // namespace

bool UpdateFold::BeginsWith(const LogLine& line) {
    return line.text.starts_with("mcu_update enter!");
}

std::string UpdateFold::CauseOf(const std::string& text) {
    char running[65];
    char image[65];
    if (text.starts_with("get mcu current version error")) return "no version from the MCU";
    if (text.starts_with("SensorMcuReboot Handshake timeout update")) {
        return "the MCU answered no handshake";
    }
    if (text.starts_with("SensorMcuReboot init UART timeout update")) {
        return "the UART could not be opened";
    }
    if (std::sscanf(text.c_str(), "board current mcu version: %64[^,],target mcu version: %64[^,]",
                    running, image) == 2) {
        return fmt::format("the MCU ran {}, the image is {}", running, image);
    }
    if (text.starts_with("current version len:") || text.starts_with("current or target version")) {
        return "the versions of MCU and image differ";
    }
    return "";
}

UpdateFold::UpdateFold(const LogLine& first, const std::string& cause) {
    episode_.kind = EpisodeKind::kUpdate;
    episode_.first = first;
    episode_.Extend(first);
    episode_.running = true;
    episode_.cause = cause;
}

Fate UpdateFold::Add(const LogLine& line) {
    if (line.tid != episode_.first.tid || line.tag != "update_mcu") return Fate::kOther;
    const std::string& text = line.text;
    const auto is = [&text](std::string_view words) { return text.starts_with(words); };
    episode_.Extend(line);

    if (is("mcu_update ok!")) return End(line, "");
    if (is("mcu_init error!")) return End(line, "bootloader");
    if (is("extended_erase_cmd error!")) return End(line, "erase");
    if (is("mcu_image_update error!")) return End(line, "image");
    if (is("write extended erase cmd ok!")) episode_.erased = true;
    if (is("mcu_end(")) restarted_ = true;
    if (is("write last mcu memory!")) last_block_ = true;
    if (is("write memory address fail!")) part_ = "address";
    if (is("write memory data fail!")) part_ = "data";
    long file_size = 0;
    long image_size = 0;
    if (std::sscanf(text.c_str(), "file_size = %ld, mcu image_size = %ld,", &file_size,
                    &image_size) == 2) {
        episode_.blocks = (image_size + kBlockBytes - 1) / kBlockBytes;
        writing_ = line;
    }
    unsigned reply = 0;
    if (std::sscanf(text.c_str(), "read mcu_send_cmd return %x", &reply) == 1) {
        reply_ = static_cast<int32_t>(reply);
        return Fate::kFolded;
    }
    for (const auto& [words, fault] : kFaults) {
        if (!is(words)) continue;
        if (fault_.empty()) fault_ = fault;
        return Fate::kFolded;
    }
    const bool told = line.level == 'D' || line.level == 'I' || is("write memory ") ||
                      std::any_of(std::begin(kTold), std::end(kTold), is);
    return told ? Fate::kFolded : Fate::kOther;
}

// Where writing stopped. The log counts no blocks, but they take the same time each.
void UpdateFold::LocateBlock(const LogLine& line) {
    episode_.block_exact = last_block_;
    episode_.failed_block = episode_.blocks;
    if (last_block_) return;
    int64_t written_ms = ElapsedMs(writing_, line);
    if (reply_ == 0) written_ms -= std::chrono::milliseconds(kAckTimeout).count();
    const auto written = static_cast<int64_t>(static_cast<double>(written_ms) / kBlockMs);
    episode_.failed_block = std::clamp<int64_t>(written + 1, 1, episode_.blocks);
}

std::string UpdateFold::ReplyText() const {
    if (reply_ == 0) return "not acknowledged";
    if (reply_ == kNack) return "refused";
    if (reply_ > 0) return fmt::format("answered with 0x{:02x}", reply_);
    return fmt::format("not sent ({})", fault_.empty() ? "the reason is not in the log" : fault_);
}

Fate UpdateFold::End(const LogLine& line, std::string_view failed_step) {
    episode_.running = false;
    if (failed_step.empty()) {
        if (!restarted_) episode_.failure = "written, but not started: the image's header was gone";
        return Fate::kEnded;
    }
    if (failed_step == "erase") {
        episode_.failure = fmt::format("erasing the flash was {}", ReplyText());
    } else if (episode_.blocks > 0) {
        LocateBlock(line);
        episode_.failure =
            fmt::format("at {}block {} of {}, its {} was {}", episode_.block_exact ? "" : "about ",
                        episode_.failed_block, episode_.blocks, part_, ReplyText());
    } else {
        episode_.failure = fault_.empty() ? "the reason is not in the log" : fault_;
    }
    return Fate::kEnded;
}

}  // namespace shdtool
