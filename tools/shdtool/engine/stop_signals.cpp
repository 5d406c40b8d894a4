// Signal handlers and masks. Called by the loop and by the threads beside it.
#include "tools/shdtool/engine/stop_signals.h"

namespace shdtool {
namespace {

constexpr int kStopping[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_stop = 0;

void RequestStop(int /*signal*/) {
    g_stop = 1;
}

}  // namespace

StopSignals::StopSignals() {
    g_stop = 0;
    struct sigaction action {};
    action.sa_handler = RequestStop;
    for (size_t i = 0; i < old_.size(); ++i) sigaction(kStopping[i], &action, &old_[i]);
}

StopSignals::~StopSignals() {
    for (size_t i = 0; i < old_.size(); ++i) sigaction(kStopping[i], &old_[i], nullptr);
}

bool StopSignals::requested() {
    return g_stop != 0;
}

BlockedSignals::BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

BlockedSignals::~BlockedSignals() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace shdtool
