// The tests' implementation of the platform seam: paths below a directory of the test's own, the
// log and the properties in memory, time under the test's control. Every daemon test links it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

class Mutex;
struct termios;

namespace shdtest {

using Lines = std::vector<std::string>;

// What the daemon calls when it lets time pass; set before other threads run. Without a hook a
// delay returns at once and a wait ends by its deadline.
struct Hooks {
    std::function<void(std::chrono::microseconds)> on_delay;
    std::function<bool()> on_wait;  // CondVar::WaitUntil, mutex released; false: deadline
    std::function<int(int fd, std::chrono::microseconds timeout)> on_readable;  // WaitReadable
    std::function<int(const std::string& name)> on_local_server;  // returns the descriptor
    std::function<int()> on_thread;  // pthread_create: 0, or the error with which it fails
    std::function<void(const termios&)> on_settings;         // tcsetattr, when it has set them
    std::function<void(const std::string& entry)> on_entry;  // each entry of the journal
    std::map<const Mutex*, std::string> named_locks;         // the locks that are journalled
};

inline Hooks g_hooks;
inline int64_t g_elapsed_ns = 0;    // 1,000 s at the start of a test
inline std::time_t g_wall_sec = 0;  // 1,500,000,000 at the start of a test

// Everything back to its defaults, with an empty root directory. Removes the previous one.
void ResetPlatform();

// The journal holds in one order what the daemon did, each entry as "tag text" with a line end
// within it as "\n". Thread-safe. Beside what fakes note there are
//   E/tag text                    log messages, with the log's own tag
//   delay MICROSECONDS            Delay
//   readable MS ms                WaitReadable, as it begins
//   wait SECONDS s                CondVar::WaitUntil, as it begins: its deadline from now
//   NAME taken, NAME released     locks in Hooks::named_locks
//   property NAME=VALUE           stored properties
void Note(std::string_view tag, const std::string& text);

// Empties the journal and returns its entries, or those with the given tags.
Lines TakeJournal(std::initializer_list<std::string_view> tags = {});

// The entries of a list and the cells of a table's rows, written as text: one a line, or separated
// by '|', without the blanks around them. A list has no empty entries.
[[nodiscard]] Lines List(std::string_view text);
[[nodiscard]] std::vector<Lines> Table(std::string_view text);
[[nodiscard]] inline int Int(const std::string& cell) {
    return std::atoi(cell.c_str());
}

void SetProperty(const std::string& name, const std::string& value);
[[nodiscard]] std::string Property(const std::string& name);  // empty when not set

// Files by their path on the device. Writing makes the directories.
[[nodiscard]] std::string HostPath(std::string_view path);
void MakeDirectory(const std::string& path);
void WriteFile(const std::string& path, std::string_view content);
[[nodiscard]] std::string ReadFile(const std::string& path);  // "(missing)" when it is not there
void LinkFile(const std::string& path, const std::string& target);  // in place of what is there

// The calling thread's number; an Android tree's host library has no gettid.
[[nodiscard]] pid_t ThreadId();

// Whether a thread of this process blocks; 0 is none.
[[nodiscard]] bool IsAsleep(pid_t thread_id);

}  // namespace shdtest
