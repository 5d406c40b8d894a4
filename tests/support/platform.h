// The tests' implementation of the platform seam: paths below a directory of the test's own, the
// log and the properties in memory, time under the test's control. Every daemon test links it.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace shdtest {

// What the daemon calls when it lets time pass. Set them before other threads run. A delay and a
// wait without a hook return at once.
struct Hooks {
    // Called by Delay after the journal entry.
    std::function<void(std::chrono::microseconds)> on_delay;
    // Called by CondVar::WaitUntil, the mutex released. False ends the wait by its deadline.
    std::function<bool()> on_wait;
    // Called by WaitReadable; its result is that of the wait.
    std::function<int(int fd)> on_readable;
    // Called by socket_local_server; its result is the descriptor.
    std::function<int(const std::string& name)> on_local_server;
};

inline constexpr int64_t kInitialElapsedNs = 1'000'000'000'000;
inline constexpr std::time_t kInitialWallSec = 1'500'000'000;

inline Hooks g_hooks;
inline int64_t g_elapsed_ns = kInitialElapsedNs;  // android::elapsedRealtimeNano
inline std::time_t g_wall_sec = kInitialWallSec;

// Everything back to its defaults, with an empty root directory. Removes the previous one.
void ResetPlatform();

// The journal holds in one order what the daemon did: log messages as "E/tag text" (a message's
// own line end kept), delays as "delay MICROSECONDS", stored properties as "property NAME=VALUE"
// and what fakes add with Note, as "tag text". Thread-safe.
void Note(std::string_view tag, std::string_view text);

// Empties the journal and returns its entries; with tags only those entries ("delay" and
// "property" are the tags of theirs).
using Lines = std::vector<std::string>;
Lines TakeJournal(std::initializer_list<std::string_view> tags = {});

void SetProperty(const std::string& name, const std::string& value);
[[nodiscard]] std::string Property(const std::string& name);  // empty when not set

// Files by their path on the device. Writing makes the directories.
[[nodiscard]] std::string HostPath(std::string_view path);
void MakeDirectory(const std::string& path);
void WriteFile(const std::string& path, std::string_view content);
[[nodiscard]] std::string ReadFile(const std::string& path);  // "(missing)" when it is not there

}  // namespace shdtest
