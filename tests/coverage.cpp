// Writes the counters of a coverage build where a process ends otherwise than by leaving main: by
// SIGTERM, as the integration tests end the daemon, and by _exit. Linked into the daemon and the
// unit tests of that build alone.
#include <pthread.h>
#include <unistd.h>

#include <csignal>

extern "C" {
void __gcov_dump();
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);

void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}
}

namespace {

// A thread of its own waits for the signal: a handler might interrupt what writing needs.
void* AwaitEnd(void* /*argument*/) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    int signal = 0;
    sigwait(&signals, &signal);
    __gcov_dump();
    std::signal(SIGTERM, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    kill(getpid(), SIGTERM);
    return nullptr;
}

[[gnu::constructor]] void WatchForEnd() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // in every thread made from now on
    pthread_t thread{};
    pthread_create(&thread, nullptr, AwaitEnd, nullptr);
}

}  // namespace
