// Stand-in for Android's log on a development machine: just the calls and values that shd uses.
#pragma once

enum android_LogPriority {
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
};

extern "C" {

// Writes one message to standard error, one output line for each of its text lines, as
// "logcat -v threadtime" prints them; one write per message. Returns the number of bytes written.
// NOLINTNEXTLINE(bugprone-reserved-identifier): Android's own name
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
}
