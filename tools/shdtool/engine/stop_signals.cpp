// Signal handlers and masks. Called by the loop and by what has a thread beside it.
#include "tools/shdtool/engine/stop_signals.h"

#include <csignal>
#include <utility>

namespace shdtool {
namespace {

volatile std::sig_atomic_t g_stop = 0;

}  // namespace

void CatchStopSignals() {
    struct sigaction action {};
    action.sa_handler = [](int /*signal*/) { g_stop = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // and no SA_RESTART
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool StopRequested() {
    return g_stop != 0;
}

std::jthread ThreadWithoutSignals(std::function<void(std::stop_token)> run) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::jthread thread(std::move(run));  // has the mask of the one that starts it
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace shdtool
