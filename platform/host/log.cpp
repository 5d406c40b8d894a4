// The Android log on a development machine: standard error, in logcat's threadtime format.
#include <android/log.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

namespace {

std::string FormatMessage(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

std::string FormatMessage(const char* fmt, va_list args) {
    std::array<char, 512> text{};
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(text.data(), text.size(), fmt, args);
    std::string message;
    if (length >= 0 && static_cast<size_t>(length) >= text.size()) {
        message.resize(static_cast<size_t>(length) + 1);
        std::vsnprintf(message.data(), message.size(), fmt, again);
        message.pop_back();
    } else if (length > 0) {
        message.assign(text.data(), static_cast<size_t>(length));
    }
    va_end(again);
    return message;
}

// "MM-DD HH:MM:SS.mmm  PID  TID L tag     : "
std::string LinePrefix(int prio, const char* tag) {
    constexpr std::string_view kLevels = "??VDIWEFS";
    const char level = prio >= 0 && static_cast<size_t>(prio) < kLevels.size()
                           ? kLevels[static_cast<size_t>(prio)]
                           : '?';
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 128> prefix{};
    std::snprintf(prefix.data(), prefix.size(),
                  "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c %-8s: ", local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_usec / 1000), static_cast<int>(getpid()),
                  static_cast<int>(gettid()), level, tag);
    return prefix.data();
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string message = FormatMessage(fmt, args);
    va_end(args);

    const std::string prefix = LinePrefix(prio, tag);
    std::string_view rest = message;
    if (rest.ends_with('\n')) rest.remove_suffix(1);
    std::string output;
    while (true) {
        const size_t end = rest.find('\n');
        output.append(prefix).append(rest.substr(0, end)).push_back('\n');
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return static_cast<int>(write(STDERR_FILENO, output.data(), output.size()));
}
