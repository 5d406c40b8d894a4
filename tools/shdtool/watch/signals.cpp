// Signal handlers and masks. Called by the watch loop, the replay and the reader threads.
#include "tools/shdtool/watch/signals.h"

namespace shdtool {
namespace {

volatile std::sig_atomic_t g_stop = 0;

void RequestStop(int /*signal*/) {
    g_stop = 1;
}

}  // namespace

StopSignals::StopSignals() {
    g_stop = 0;
    struct sigaction action {};
    action.sa_handler = RequestStop;
    sigaction(SIGINT, &action, &old_int_);
    sigaction(SIGTERM, &action, &old_term_);
}

StopSignals::~StopSignals() {
    sigaction(SIGINT, &old_int_, nullptr);
    sigaction(SIGTERM, &old_term_, nullptr);
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
