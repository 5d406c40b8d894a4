// The tests' platform; linked in place of the development machine's.
#include "tests/support/platform.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/sockets.h>
#include <sys/stat.h>
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

#include "platform/delay.h"
#include "platform/device_path.h"
#include "platform/mutex.h"

namespace {

struct Entry {
    std::string tag;
    std::string text;
};

struct RootDirectory {
    std::string path;
    ~RootDirectory() { Remove(); }
    void Remove() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
};

std::mutex g_mutex;  // guards the journal and the properties
std::vector<Entry> g_journal;
std::map<std::string, std::string> g_properties;
RootDirectory g_root;

void AddEntry(std::string_view tag, std::string text) {
    const std::lock_guard lock(g_mutex);
    g_journal.push_back({std::string(tag), std::move(text)});
}

}  // namespace

namespace shdtest {

void ResetPlatform() {
    g_hooks = {};
    g_elapsed_ns = kInitialElapsedNs;
    g_wall_sec = kInitialWallSec;
    g_root.Remove();
    std::string path = (std::filesystem::temp_directory_path() / "shd_test.XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) std::abort();
    g_root.path = path;
    const std::lock_guard lock(g_mutex);
    g_journal.clear();
    g_properties.clear();
}

void Note(std::string_view tag, std::string_view text) {
    AddEntry(tag, std::string(tag) + " " + std::string(text));
}

Lines TakeJournal(std::initializer_list<std::string_view> tags) {
    const std::lock_guard lock(g_mutex);
    Lines lines;
    for (const Entry& entry : g_journal) {
        const bool wanted = std::find(tags.begin(), tags.end(), entry.tag) != tags.end();
        if (wanted || tags.size() == 0) lines.push_back(entry.text);
    }
    g_journal.clear();
    return lines;
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
    std::filesystem::create_directories(HostPath(path));
}

void WriteFile(const std::string& path, std::string_view content) {
    std::filesystem::create_directories(std::filesystem::path(HostPath(path)).parent_path());
    std::ofstream(HostPath(path), std::ios::binary) << content;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(HostPath(path), std::ios::binary);
    if (!file) return "(missing)";
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace shdtest

DevicePath::DevicePath(std::string_view path) : path_(shdtest::HostPath(path)) {}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    constexpr std::string_view kLevels = "??VDIWEF";
    std::array<char, 2048> text{};
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(text.data(), text.size(), fmt, args);
    va_end(args);
    const std::string level(1, kLevels[static_cast<size_t>(prio)]);
    AddEntry(tag, level + "/" + tag + " " + text.data());
    return length;
}

int property_get(const char* key, char* value, const char* default_value) {
    std::string text = shdtest::Property(key);
    if (text.empty() && default_value != nullptr) text = default_value;
    std::strcpy(value, text.substr(0, PROPERTY_VALUE_MAX - 1).c_str());
    return static_cast<int>(std::strlen(value));
}

int property_set(const char* key, const char* value) {
    if (std::strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    shdtest::SetProperty(key, value);
    shdtest::Note("property", std::string(key) + "=" + value);
    return 0;
}

int socket_local_server(const char* name, int namespace_id, int type) {
    const std::string arguments = std::to_string(namespace_id) + " " + std::to_string(type);
    shdtest::Note("socket", std::string(name) + " " + arguments);
    const auto& hook = shdtest::g_hooks.on_local_server;
    return hook ? hook(name) : -1;
}

int64_t android::elapsedRealtimeNano() {
    return shdtest::g_elapsed_ns;
}

std::time_t WallClockSec() {
    return shdtest::g_wall_sec;
}

void Delay(std::chrono::microseconds duration) {
    shdtest::Note("delay", std::to_string(duration.count()));
    if (shdtest::g_hooks.on_delay) shdtest::g_hooks.on_delay(duration);
}

int WaitReadable(int fd, std::chrono::microseconds /*timeout*/) {
    return shdtest::g_hooks.on_readable ? shdtest::g_hooks.on_readable(fd) : 0;
}

int CondVar::WaitUntil(Mutex& mutex, std::time_t /*deadline_sec*/) {
    mutex.Unlock();
    const bool go_on = shdtest::g_hooks.on_wait && shdtest::g_hooks.on_wait();
    mutex.Lock();
    return go_on ? 0 : ETIMEDOUT;
}
