// What a timeline shows, piece by piece and all on the boot clock. Made by the readers of lines,
// logs and events; taken by the timeline command and by the view.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tools/client/event_decoder.h"
#include "tools/wire/packet.h"

namespace shdtool::timeline {

// Nanoseconds of the boot clock.
using Time = int64_t;

// Where something was seen.
enum class Source : uint8_t {
    kLine,    // a recording of the line
    kLog,     // the daemon's log
    kEvents,  // the data socket, or a recording of it
    kTrace,   // the simulator's trace: what the MCU itself knows
};

// An event with values. Samples of one report have one arrival, or nearly so.
struct Sample {
    Time arrival = 0;
    shdclient::DecodedEvent event;  // its stamp is timestamp_ns
};

struct FlushComplete {
    Time arrival = 0;
    int32_t handle = 0;
};

// A frame of the application or a group of bytes of the bootloader. The times are those of its
// bits on the line, reckoned from the line's speed and when the recorder had it.
struct Frame {
    uint64_t number = 0;  // from 1, among the frames of its source
    Time begin = 0;
    Time end = 0;
    bool to_mcu = false;
    bool damaged = false;  // or cut off
    std::string words;     // "report accelerometer 5 samples ...", without the speaker
    wire::Bytes raw;       // as on the line; none from a trace
    Source source = Source::kLine;
};

// A level of a pin or a setting of the line: "reset 0", "line 115200 bit/s 8E1".
struct LineChange {
    Time at = 0;
    std::string words;
};

enum class Mark : uint8_t {
    kNone,
    kUnanswered,  // end: the daemon's time limit
    kLate,        // end: the reply, which came when nobody waited for it any more
    kShifted,     // the daemon took another request's late reply for this one's
};

// One request and what became of it. An unanswered one may be told again as late, with the same
// number.
struct Exchange {
    uint64_t number = 0;  // the request's frame
    Time begin = 0;       // of the request
    Time end = 0;
    std::string words;  // "accelerometer active", behind it what is not as it should be
    Mark mark = Mark::kNone;
    std::vector<int32_t> flushed;  // the sensors that it asks to flush
};

enum class State : uint8_t {
    kStarting,
    kService,
    kSilent,
    kBootloader,
    kRecovering,
    kUpdating,
    kDown,  // no firmware, switched off, or no daemon to tell of it
};

// The state of the MCU from here on, as one source tells it; see StateFold. May lie before items
// that came earlier: silence shows by its length.
struct McuState {
    Time at = 0;
    State state = State::kStarting;
    std::string reason;  // may be empty
    Source source = Source::kLine;
};

struct Phase {
    Time begin = 0;
    std::optional<Time> end = {};
    std::string words = {};
};

// Told when it begins, when a phase does, and when it has ended, with the same kind and begin.
struct EpisodeSpan {
    enum class Kind : uint8_t { kRecovery, kUpdate, kCrash };

    Kind kind = Kind::kRecovery;
    Time begin = 0;
    std::optional<Time> end = {};  // none: it is going on
    std::string words = {};
    bool ok = true;                  // or still possible
    std::vector<Phase> phases = {};  // one behind the other
};

struct LogText {
    Time at = 0;
    bool of_mcu = false;  // the MCU's words, passed on by the daemon
    char level = 'D';
    int32_t pid = 0;
    int32_t tid = 0;
    std::string tag;
    std::string text;
};

// What the daemon's main thread is busy with, besides waiting for replies.
struct Work {
    Time begin = 0;
    Time end = 0;
    std::string words;
};

// To the daemon, of the program that recorded the events.
struct Connection {
    Time at = 0;
    bool up = false;
};

// Events that the recording program may not have got; see shdclient::MissedSpan.
struct Missed {
    Time begin = 0;
    Time end = 0;
    bool certain = false;
};

struct ClientState {
    int32_t pid = 0;
    std::string name;
    bool control = false;  // else the data socket
    int64_t unread = 0;    // bytes
    int32_t fill_percent = 0;
    bool losing = false;
};

// All clients of a running hub.
struct Clients {
    Time at = 0;
    std::vector<ClientState> list;
};

// How the daemon has asked the MCU for a sensor.
struct Asked {
    Time at = 0;
    int32_t handle = 0;
    int64_t period_us = 0;  // 0: switched off
    int32_t batch = 0;
};

using Item = std::variant<Sample, FlushComplete, Frame, LineChange, Exchange, McuState, EpisodeSpan,
                          LogText, Work, Connection, Missed, Clients, Asked>;
using Sink = std::function<void(const Item&)>;

// "starting", "service", "silent", "bootloader", "recovering", "updating", "down".
[[nodiscard]] std::string_view NameOf(State state);
// "", "unanswered", "late", "shifted".
[[nodiscard]] std::string_view NameOf(Mark mark);
// "recovery", "update", "crash".
[[nodiscard]] std::string_view NameOf(EpisodeSpan::Kind kind);

}  // namespace shdtool::timeline
