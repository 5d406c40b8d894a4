// The lines of a recovery and of a firmware update, as tables of what each of them tells. Called by
// the log folder.
#include "tools/shdtool/log/episode_fold.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <span>

#include "update_mcu/bootloader_link.h"

namespace shdtool {
namespace {

constexpr std::string_view kTimeoutTrigger = "SendSensorMsgAndWait to many error, reboot mcu";
constexpr std::string_view kWriteTrigger = "SendSensorMsgAndWait wakeup to many error, reboot mcu";

constexpr int64_t kBlockBytes = 256;
constexpr int32_t kNack = 0x1F;  // AN3155

// What one block costs: command, address and data with their acknowledgements, 11 bits a byte at
// 115,200 bit/s, and the programming of 64 words, 16 us each on an STM32F4.
constexpr double kBlockMs = (2 + 5 + (1 + kBlockBytes + 1) + 3) * 11 / 115.2 + 64 * 0.016;

// The thread of a recovery takes the wake lock before anything else, and releases it at its end.
bool IsRecoverysFirst(std::string_view text) {
    return text.starts_with("SensorWakeLockAcquiredLocked :1") ||
           text.starts_with("sensorhub_write_proc_file ");
}

std::string CauseOfRecovery(const std::string& text) {
    if (text == kTimeoutTrigger) return "the MCU left two requests unanswered";
    if (text == kWriteTrigger) return "three requests could not be written to the UART";
    const auto piece = FindDumpPiece(text);  // the last one asks for the restart
    if (!piece || piece->index != piece->count || piece->count == 0) return "";
    return fmt::format("the MCU crashed and sent a core dump in {} piece{}", piece->count,
                       piece->count == 1 ? "" : "s");
}

}  // namespace

enum class EpisodeFold::Speaker : uint8_t {
    kAnybody,
    kThread,  // that carries the episode out
    kAsker,   // that asked for a recovery, and goes on with what it was doing
};

// What a line tells, by the beginning of its text; a longer one stands ahead of one that it begins
// with. One that tells nothing says what another one tells.
struct EpisodeFold::Rule {
    Speaker speaker = Speaker::kThread;
    std::string_view words;
    bool Seen::*seen = nullptr;     // becomes true
    int Episode::*count = nullptr;  // is one more
    const char* failure = nullptr;  // of the episode
    const char* fault = nullptr;    // of the update, when it is the first
    const char* part = nullptr;     // of a block, which could not be written
    void (EpisodeFold::*act)(const LogLine& line) = nullptr;
    bool ends = false;
};

const EpisodeFold::Rule EpisodeFold::kRecoveryRules[] = {
    {.speaker = Speaker::kAnybody, .words = "SensorMcuReboot thread has exist"},
    {.speaker = Speaker::kAnybody,
     .words = "Process msg mcu in reboot ignore sensor",
     .count = &Episode::refused_requests},
    {.speaker = Speaker::kAsker,
     .words = "SensorMcuReboot disable",
     .failure = "forbidden by persist.velmar.shd.mcureboot",
     .ends = true},
    {.speaker = Speaker::kAsker,
     .words = "SensorMcuReboot thread create failure",
     .failure = "no thread could be started",
     .ends = true},
    {.words = "SensorMcuReboot Handshake timeout index:",
     .failure = "the MCU answers no handshake, and new firmware did not help"},
    {.words = "SensorMcuReboot init UART timeout index:",
     .failure = "the UART could not be opened"},
    {.words = "SensorMcuReboot Handshake timeout update mcu", .count = &Episode::updates},
    {.words = "SensorMcuReboot init UART timeout update mcu", .count = &Episode::updates},
    {.words = "SensorMcuReboot Handshake timeout", .count = &Episode::unanswered_handshakes},
    {.words = "SensorMcuReboot Handshake OK", .seen = &Seen::handshake},
    {.words = "SensorMcuReboot SensorActive:", .act = &EpisodeFold::AddSensor},
    {.words = "Sensor Active :", .seen = &Seen::sensor_failed},
    {.words = "Sensor Batch :", .seen = &Seen::sensor_failed},
    {.words = "Sensor SetParameter :", .act = &EpisodeFold::AddParameterLost},
    {.words = "BoardSerial ReInit open uart failure"},
    {.words = "SensorWakeLockAcquiredLocked :0", .act = &EpisodeFold::EndRecovery, .ends = true},
};

const EpisodeFold::Rule EpisodeFold::kUpdateRules[] = {
    {.words = "mcu_update ok!", .act = &EpisodeFold::EndUpdate, .ends = true},
    {.words = "mcu_init error!", .act = &EpisodeFold::FailUpdate, .ends = true},
    {.words = "extended_erase_cmd error!", .act = &EpisodeFold::FailErase, .ends = true},
    {.words = "mcu_image_update error!", .act = &EpisodeFold::FailUpdate, .ends = true},
    {.words = "write extended erase cmd ok!", .seen = &Seen::erased},
    {.words = "file_size = ", .act = &EpisodeFold::ReadImageSize},
    {.words = "write last mcu memory!", .seen = &Seen::last_block},
    {.words = "write memory address fail!", .part = "address"},
    {.words = "write memory data fail!", .part = "data"},
    {.words = "read mcu_send_cmd return ", .act = &EpisodeFold::ReadReply},
    {.words = "mcu_end(", .seen = &Seen::restarted},
    {.words = "open update tty device error", .fault = "the UART could not be opened"},
    {.words = "write 7F cmd error", .fault = "the UART took no bytes"},
    {.words = "mcu init over 3 times", .fault = "the bootloader did not answer in 20 attempts"},
    {.words = "write mcu_send_cmd error", .fault = "the UART took no bytes"},
    {.words = "read mcu_send_cmd error", .fault = "the UART could not be read"},
    {.words = "stat file settings error", .fault = "the image is missing"},
    {.words = "fopen mcu file error", .fault = "the image could not be opened"},
    {.words = "file size error, file_size",
     .fault = "the image's size is not what its header says"},
    {.words = "file size error", .fault = "the image is too large"},
    {.words = "file_buf malloc fail", .fault = "there was no memory for the image"},
    {.words = "target mcu header get error", .fault = "the image's header could not be read"},
    {.words = "open_mcu_tty error"},
    {.words = "handshake over 5 times"},
    {.words = "write extended erase fail"},
    {.words = "write erase all fail"},
    {.words = "write_memory_cmd current error"},
    {.words = "write_memory_cmd last error"},
    {.words = "mcu serial select error"},
};

bool EpisodeFold::Begins(EpisodeKind kind, const LogLine& line) {
    if (kind == EpisodeKind::kUpdate) return line.text.starts_with("mcu_update enter!");
    return !CauseOfRecovery(line.text).empty() || IsRecoverysFirst(line.text);
}

EpisodeFold::EpisodeFold(EpisodeKind kind, const LogLine& first, const std::string& before) {
    episode_.kind = kind;
    episode_.first = first;
    episode_.Extend(first);
    episode_.running = true;
    if (kind == EpisodeKind::kUpdate) {
        thread_ = first.tid;
        episode_.cause = before;
        return;
    }
    thread_ = IsRecoverysFirst(first.text) ? first.tid : 0;
    episode_.cause = CauseOfRecovery(first.text);
    by_timeout_ = first.text == kTimeoutTrigger;
    if (by_timeout_ && !before.empty()) episode_.unanswered.push_back(before);
}

std::string EpisodeFold::TimedOutRequest(std::string_view text) {
    constexpr std::string_view kSensor = "Sensor ";
    constexpr std::string_view kTimeout = " timeout";
    constexpr std::string_view kConfigTimeout = " Msg send/recv error";
    if (text.ends_with(kConfigTimeout)) {
        return std::string(text.substr(0, text.size() - kConfigTimeout.size()));
    }
    const size_t colon = text.find(" :");
    if (!text.starts_with(kSensor) || !text.ends_with(kTimeout) || colon == text.npos) return "";
    std::string command(text.substr(kSensor.size(), colon - kSensor.size()));
    const SensorMention mention = FindMention(text);
    if (mention.handles.empty()) return command;
    return fmt::format("{} {}", command, NamesOf(mention.handles, "/"));
}

std::string EpisodeFold::CauseOfUpdate(const std::string& text) {
    constexpr std::pair<std::string_view, const char*> kCauses[] = {
        {"get mcu current version error", "no version from the MCU"},
        {"SensorMcuReboot Handshake timeout update", "the MCU answered no handshake"},
        {"SensorMcuReboot init UART timeout update", "the UART could not be opened"},
        {"current version len:", "the versions of MCU and image differ"},
        {"current or target version", "the versions of MCU and image differ"},
    };
    for (const auto& [words, cause] : kCauses) {
        if (text.starts_with(words)) return cause;
    }
    char running[65];
    char image[65];
    const bool versions = std::sscanf(text.c_str(),
                                      "board current mcu version: %64[^,],target mcu version: "
                                      "%64[^,]",
                                      running, image) == 2;
    return versions ? fmt::format("the MCU ran {}, the image is {}", running, image) : "";
}

Fate EpisodeFold::Add(const LogLine& line) {
    const Fate fate = Judge(line);
    if (fate != Fate::kOther) episode_.Extend(line);
    return fate;
}

EpisodeFold::Speaker EpisodeFold::SpeakerOf(const LogLine& line) {
    if (episode_.kind == EpisodeKind::kUpdate) {
        const bool own = line.tid == thread_ && line.tag == "update_mcu";
        return own ? Speaker::kThread : Speaker::kAnybody;
    }
    const bool asker = line.tid == episode_.first.tid;
    if (thread_ == 0 && !asker && IsRecoverysFirst(line.text)) thread_ = line.tid;
    if (line.tid == thread_) return Speaker::kThread;
    return asker ? Speaker::kAsker : Speaker::kAnybody;
}

const EpisodeFold::Rule* EpisodeFold::FindRule(Speaker speaker, std::string_view text) const {
    const bool update = episode_.kind == EpisodeKind::kUpdate;
    const auto rules = update ? std::span<const Rule>(kUpdateRules) : kRecoveryRules;
    const auto rule = std::find_if(rules.begin(), rules.end(), [&](const Rule& candidate) {
        return (candidate.speaker == Speaker::kAnybody || candidate.speaker == speaker) &&
               text.starts_with(candidate.words);
    });
    return rule == rules.end() ? nullptr : &*rule;
}

Fate EpisodeFold::Judge(const LogLine& line) {
    const Speaker speaker = SpeakerOf(line);
    if (const Rule* rule = FindRule(speaker, line.text)) {
        Apply(*rule, line);
        return episode_.running ? Fate::kFolded : Fate::kEnded;
    }
    const bool recovery = episode_.kind == EpisodeKind::kRecovery;
    if (recovery && !CauseOfRecovery(line.text).empty()) return Fate::kFolded;  // another reason
    if (speaker == Speaker::kThread) {
        return line.level == 'W' || line.level == 'E' ? Fate::kOther : Fate::kFolded;
    }
    if (speaker != Speaker::kAsker || !by_timeout_) return Fate::kOther;
    const std::string request = TimedOutRequest(line.text);
    if (request.empty()) return Fate::kOther;
    by_timeout_ = false;
    episode_.unanswered.push_back(request);
    return Fate::kFolded;
}

void EpisodeFold::Apply(const Rule& rule, const LogLine& line) {
    if (rule.seen != nullptr) seen_.*rule.seen = true;
    if (rule.count != nullptr) ++(episode_.*rule.count);
    if (rule.failure != nullptr) episode_.failure = rule.failure;
    if (rule.fault != nullptr && fault_.empty()) fault_ = rule.fault;
    if (rule.part != nullptr) part_ = rule.part;
    if (rule.act != nullptr) (this->*rule.act)(line);
    episode_.erased = seen_.erased;
    episode_.running = !rule.ends;
}

void EpisodeFold::AddSensor(const LogLine& line) {
    auto& handles = seen_.sensor_failed ? episode_.not_restored : episode_.restored;
    std::ranges::copy(FindMention(line.text).handles, std::back_inserter(handles));
    seen_.sensor_failed = false;
}

void EpisodeFold::AddParameterLost(const LogLine& line) {
    std::ranges::copy(FindMention(line.text).handles, std::back_inserter(episode_.parameters_lost));
}

void EpisodeFold::EndRecovery(const LogLine& /*line*/) {
    if (!seen_.handshake && episode_.ok()) episode_.failure = "the MCU did not answer";
}

void EpisodeFold::ReadImageSize(const LogLine& line) {
    long file_size = 0;
    long image_size = 0;
    if (std::sscanf(line.text.c_str(), "file_size = %ld, mcu image_size = %ld,", &file_size,
                    &image_size) != 2) {
        return;
    }
    episode_.blocks = (image_size + kBlockBytes - 1) / kBlockBytes;
    writing_ = line;
}

void EpisodeFold::ReadReply(const LogLine& line) {
    unsigned reply = 0;
    if (std::sscanf(line.text.c_str(), "read mcu_send_cmd return %x", &reply) == 1) {
        reply_ = static_cast<int32_t>(reply);
    }
}

void EpisodeFold::EndUpdate(const LogLine& /*line*/) {
    if (!seen_.restarted) {
        episode_.failure = "written, but not started: the image's header was gone";
    }
}

void EpisodeFold::FailErase(const LogLine& /*line*/) {
    episode_.failure = fmt::format("erasing the flash was {}", ReplyText());
}

// Before the first block, or at one. The log counts no blocks, but they take the same time each.
void EpisodeFold::FailUpdate(const LogLine& line) {
    if (episode_.blocks == 0) {
        episode_.failure = FaultText();
        return;
    }
    int64_t written_ms = ElapsedMs(writing_, line);
    if (reply_ == 0) written_ms -= std::chrono::milliseconds(kAckTimeout).count();
    const auto written = static_cast<int64_t>(static_cast<double>(written_ms) / kBlockMs);
    episode_.block_exact = seen_.last_block;
    episode_.failed_block =
        seen_.last_block ? episode_.blocks : std::clamp<int64_t>(written + 1, 1, episode_.blocks);
    episode_.failure =
        fmt::format("at {}block {} of {}, its {} was {}", episode_.block_exact ? "" : "about ",
                    episode_.failed_block, episode_.blocks, part_, ReplyText());
}

std::string EpisodeFold::ReplyText() const {
    if (reply_ == 0) return "not acknowledged";
    if (reply_ == kNack) return "refused";
    if (reply_ > 0) return fmt::format("answered with 0x{:02x}", reply_);
    return fmt::format("not sent ({})", FaultText());
}

std::string_view EpisodeFold::FaultText() const {
    return fault_.empty() ? "the reason is not in the log" : fault_;
}

}  // namespace shdtool
