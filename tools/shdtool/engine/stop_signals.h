// The signals of the commands that run until they are told to stop: the main thread notices them,
// the threads beside it do not. Used by the loop and by the threads beside it.
#pragma once

#include <array>
#include <csignal>

namespace shdtool {

// Catches SIGINT, SIGTERM and SIGHUP for its lifetime, without restarting the interrupted wait.
class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // True once one came.
    [[nodiscard]] static bool requested();

  private:
    std::array<struct sigaction, 3> old_{};
};

// Blocks all signals for its lifetime: a thread started meanwhile leaves them to the others.
class BlockedSignals {
  public:
    BlockedSignals();
    ~BlockedSignals();
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

  private:
    sigset_t before_{};
};

}  // namespace shdtool
