// The line's one owner: parking of the reader thread and the exclusive hold.
#include "mcu_link/line.h"

#include <csignal>

#include "mcu_link/serial_port.h"
#include "platform/delay.h"

namespace {

// Interrupts the reader's blocked read. Its handler does nothing and is installed without
// SA_RESTART, so that the read returns.
constexpr int kInterruptSignal = SIGUSR1;

// A signal that arrives just before the read blocks is lost; it is repeated at this interval.
constexpr std::chrono::milliseconds kInterruptInterval{1};

}  // namespace

Line g_line;

void Line::AttachReader() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    sigaction(kInterruptSignal, &action, nullptr);
    // The signal mask is inherited from whoever started the process.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, kInterruptSignal);
    pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    reader_ = pthread_self();
    reader_attached_ = true;
}

void Line::ParkReader() {
    parked_ = true;
    while (hold_.load() != 0) hold_.wait(1);
    // Cleared before the reader looks at hold_ again: a holder that still sees the old value has
    // set hold_ early enough for the reader to see that before it reads.
    parked_ = false;
}

LinkHold::LinkHold() {
    g_line.mutex().Lock();
    g_line.hold_ = 1;
    if (!g_line.reader_attached_) return;
    while (!g_line.parked_) {
        pthread_kill(g_line.reader_, kInterruptSignal);
        Delay(kInterruptInterval);
    }
}

LinkHold::~LinkHold() {
    // Settings belong to the tty, not to a descriptor: a holder leaves behind the bootloader's
    // parity with its stripped eighth bit, or a port that has just been opened.
    g_board_serial.Configure();
    g_line.hold_ = 0;
    g_line.hold_.notify_all();
    g_line.mutex().Unlock();
}
