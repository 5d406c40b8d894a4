// Follows one recovery or one firmware update through the daemon's log, from what caused it to the
// last sensor that is on again, or to the block at which it failed. Used by the log folder.
#pragma once

#include "tools/shdtool/log/episode.h"

namespace shdtool {

class EpisodeFold {
  public:
    // Whether an episode of this kind begins with this line: an update with its first word; a
    // recovery with the request or the core dump that asks for one, or, in a log that begins later,
    // with its thread's first word.
    [[nodiscard]] static bool Begins(EpisodeKind kind, const LogLine& line);

    // first: a line for which that is true. before: what the log told earlier, empty when nothing:
    // the request that was not answered ahead of a recovery, the cause of an update.
    EpisodeFold(EpisodeKind kind, const LogLine& first, const std::string& before);

    [[nodiscard]] Fate Add(const LogLine& line);
    [[nodiscard]] const Episode& episode() const { return episode_; }

    // "Active accelerometer": the request whose time-out this text reports, empty when it does not.
    [[nodiscard]] static std::string TimedOutRequest(std::string_view text);
    // Why the next update will run, told by this text; empty when it does not.
    [[nodiscard]] static std::string CauseOfUpdate(const std::string& text);

  private:
    enum class Speaker : uint8_t;
    struct Rule;
    static const Rule kRecoveryRules[];
    static const Rule kUpdateRules[];

    struct Seen {
        bool handshake = false;
        bool sensor_failed = false;  // since the last sensor was dealt with
        bool erased = false;
        bool last_block = false;
        bool restarted = false;
    };

    [[nodiscard]] Speaker SpeakerOf(const LogLine& line);
    [[nodiscard]] const Rule* FindRule(Speaker speaker, std::string_view text) const;
    [[nodiscard]] Fate Judge(const LogLine& line);
    void Apply(const Rule& rule, const LogLine& line);
    void AddSensor(const LogLine& line);
    void AddParameterLost(const LogLine& line);
    void EndRecovery(const LogLine& line);
    void ReadImageSize(const LogLine& line);
    void ReadReply(const LogLine& line);
    void EndUpdate(const LogLine& line);
    void FailErase(const LogLine& line);
    void FailUpdate(const LogLine& line);
    [[nodiscard]] std::string ReplyText() const;
    [[nodiscard]] std::string_view FaultText() const;

    Episode episode_;
    Seen seen_;
    int32_t thread_ = 0;       // that carries it out, 0: it has not said anything yet
    bool by_timeout_ = false;  // and the request that it was has not been named yet

    // Of an update.
    LogLine writing_;                    // since when blocks are written
    std::string_view fault_;             // the first one that says what is wrong
    std::string_view part_ = "command";  // of the block that is being written
    int32_t reply_ = -1;                 // of the bootloader, -1: no wrong one was seen
};

}  // namespace shdtool
