// The signals of the commands that run until they are told to stop: the main thread notices them,
// the threads beside it do not. Used by the loop and by what has such a thread.
#pragma once

#include <functional>
#include <thread>

namespace shdtool {

// From here on the first SIGINT, SIGTERM or SIGHUP is only noticed, and ends a wait; a second one
// ends the process.
void CatchStopSignals();

// True once one came.
[[nodiscard]] bool StopRequested();

// A thread that leaves all signals to the others.
[[nodiscard]] std::jthread ThreadWithoutSignals(std::function<void(std::stop_token)> run);

}  // namespace shdtool
