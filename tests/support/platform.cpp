// The tests' platform; linked in place of the development machine's.
#include "tests/support/platform.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <utils/SystemClock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>

#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/mutex.h"
#include "protocol/system.h"

namespace fs = std::filesystem;

namespace {

struct RootDirectory {
    std::string path;
    ~RootDirectory() { Remove(); }
    void Remove() const {
        std::error_code ignored;
        if (!path.empty()) fs::remove_all(path, ignored);
    }
};

std::mutex g_mutex;                                          // guards the next two
std::vector<std::pair<std::string, std::string>> g_journal;  // tag, entry
std::map<std::string, std::string> g_properties;
RootDirectory g_root;

void AddEntry(std::string_view tag, std::string entry) {
    for (size_t at = 0; (at = entry.find('\n', at)) != std::string::npos;)
        entry.replace(at, 1, "\\n");
    if (shdtest::g_hooks.on_entry) shdtest::g_hooks.on_entry(entry);
    const std::lock_guard lock(g_mutex);
    g_journal.emplace_back(tag, std::move(entry));
}

void NoteLock(const Mutex* mutex, const std::string& what) {
    const auto found = shdtest::g_hooks.named_locks.find(mutex);
    if (found != shdtest::g_hooks.named_locks.end()) shdtest::Note(found->second, what);
}

}  // namespace

namespace shdtest {

void ResetPlatform() {
    g_hooks = {};
    g_elapsed_ns = 1'000'000'000'000;
    g_wall_sec = 1'500'000'000;
    g_root.Remove();
    g_root.path = (fs::temp_directory_path() / "shd_test.XXXXXX").string();
    if (mkdtemp(g_root.path.data()) == nullptr) std::abort();
    const std::lock_guard lock(g_mutex);
    g_journal.clear();
    g_properties.clear();
}

void Note(std::string_view tag, const std::string& text) {
    AddEntry(tag, std::string(tag) + " " + text);
}

Lines TakeJournal(std::initializer_list<std::string_view> tags) {
    const std::lock_guard lock(g_mutex);
    Lines lines;
    for (const auto& [tag, entry] : g_journal) {
        const bool wanted = std::find(tags.begin(), tags.end(), tag) != tags.end();
        if (wanted || tags.size() == 0) lines.push_back(entry);
    }
    g_journal.clear();
    return lines;
}

std::vector<Lines> Table(std::string_view text) {
    std::vector<Lines> rows;
    std::istringstream stream{std::string(text)};
    for (std::string row; std::getline(stream, row);) {
        if (row.find_first_not_of(' ') == std::string::npos) continue;
        std::istringstream cells(row + "|");
        rows.emplace_back();
        for (std::string cell; std::getline(cells, cell, '|');) {
            cell.erase(0, std::min(cell.find_first_not_of(' '), cell.size()));
            cell.erase(cell.find_last_not_of(' ') + 1);
            rows.back().push_back(cell);
        }
    }
    return rows;
}

Lines List(std::string_view text) {
    Lines entries;
    for (const Lines& row : Table(text)) entries.insert(entries.end(), row.begin(), row.end());
    std::erase(entries, "");
    return entries;
}

void SetProperty(const std::string& name, const std::string& value) {
    const std::lock_guard lock(g_mutex);
    g_properties[name] = value;
}

std::string Property(const std::string& name) {
    const std::lock_guard lock(g_mutex);
    const auto found = g_properties.find(name);
    return found == g_properties.end() ? std::string() : found->second;
}

std::string HostPath(std::string_view path) {
    return g_root.path + std::string(path);
}

void MakeDirectory(const std::string& path) {
    fs::create_directories(HostPath(path));
}

void WriteFile(const std::string& path, std::string_view content) {
    fs::create_directories(fs::path(HostPath(path)).parent_path());
    std::ofstream(HostPath(path), std::ios::binary) << content;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(HostPath(path), std::ios::binary);
    if (!file) return "(missing)";
    return {std::istreambuf_iterator<char>(file), {}};
}

void LinkFile(const std::string& path, const std::string& target) {
    fs::create_directories(fs::path(HostPath(path)).parent_path());
    fs::remove(HostPath(path));
    fs::create_symlink(target, HostPath(path));
}

pid_t ThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool IsAsleep(pid_t thread_id) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread_id) + "/stat");
    std::string status;
    std::getline(file, status);
    return status.find(") S ") != std::string::npos;
}

}  // namespace shdtest

using namespace shdtest;

DevicePath::DevicePath(std::string_view path) : path_(HostPath(path)) {}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    constexpr std::string_view kLevels = "??VDIWEF";
    std::array<char, 2048> text{};
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(text.data(), text.size(), fmt, args);
    va_end(args);
    std::string entry(1, kLevels[static_cast<size_t>(prio)]);
    AddEntry(tag, entry.append("/").append(tag).append(" ").append(text.data()));
    return length;
}

int property_get(const char* key, char* value, const char* /*default_value*/) {
    const std::string text = Property(key).substr(0, PROPERTY_VALUE_MAX - 1);
    std::strcpy(value, text.c_str());
    return static_cast<int>(text.size());
}

int property_set(const char* key, const char* value) {
    if (std::strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    SetProperty(key, value);
    Note("property", std::string(key) + "=" + value);
    return 0;
}

int socket_local_server(const char* name, int namespace_id, int type) {
    const std::string arguments = std::to_string(namespace_id) + " " + std::to_string(type);
    Note("socket", std::string(name) + " " + arguments);
    return g_hooks.on_local_server ? g_hooks.on_local_server(name) : -1;
}

int64_t android::elapsedRealtimeNano() {
    return g_elapsed_ns;
}

std::time_t WallClockSec() {
    return g_wall_sec;
}

void Delay(std::chrono::microseconds duration) {
    Note("delay", std::to_string(duration.count()));
    if (g_hooks.on_delay) g_hooks.on_delay(duration);
}

int WaitReadable(int fd, std::chrono::microseconds timeout) {
    Note("readable", std::to_string(timeout.count() / 1000) + " ms");
    return g_hooks.on_readable ? g_hooks.on_readable(fd, timeout) : 0;
}

extern "C" {
using ThreadEntry = void* (*)(void*);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, ThreadEntry entry,
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, ThreadEntry entry,
                          void* argument);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, ThreadEntry entry,
                          void* argument) {
    const int error = g_hooks.on_thread ? g_hooks.on_thread() : 0;
    return error != 0 ? error : __real_pthread_create(thread, attributes, entry, argument);
}

int __real_tcsetattr(int fd, int action, const termios* settings);
int __wrap_tcsetattr(int fd, int action, const termios* settings);

int __wrap_tcsetattr(int fd, int action, const termios* settings) {
    const int result = __real_tcsetattr(fd, action, settings);
    if (g_hooks.on_settings) g_hooks.on_settings(*settings);
    return result;
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...) {
    const bool terminal = std::string_view(path).ends_with(shd::kUartPath);
    const int needed = terminal ? O_CLOEXEC | O_NOCTTY : O_CLOEXEC;
    const bool counters = std::string_view(path).ends_with(".gcda");  // of a coverage build
    if ((flags & needed) != needed && !counters) {
        std::fprintf(stderr, "%s opened without O_CLOEXEC or O_NOCTTY\n", path);
        std::abort();
    }
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : mode_t{0};
    va_end(rest);
    return __real_open(path, flags, mode);
}
}

void Mutex::Lock() {
    pthread_mutex_lock(&mutex_);
    NoteLock(this, "taken");
}

void Mutex::Unlock() {
    NoteLock(this, "released");
    pthread_mutex_unlock(&mutex_);
}

int CondVar::WaitUntil(Mutex& mutex, std::time_t deadline_sec) {
    Note("wait", std::to_string(deadline_sec - g_wall_sec) + " s");
    mutex.Unlock();
    const bool go_on = g_hooks.on_wait && g_hooks.on_wait();
    mutex.Lock();
    return go_on ? 0 : ETIMEDOUT;
}
