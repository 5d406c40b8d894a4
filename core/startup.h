// The daemon's start-up sequence.
#pragma once

// Runs the daemon on the calling thread, which becomes the thread that executes control requests.
// Returns only when start-up fails, with -1; the servers' threads may run then, so that the caller
// ends the process without taking down what they use. Ends the process when an inherited socket
// cannot be listened on.
int RunDaemon();

// Raises the core-file size limit as far as it goes. Returns 0 or the failed call's result.
int SetCoreDumpLimit();

// Loads the accelerometer's and the barometer's calibration from /nvdata. Values out of range, and
// missing files, leave what is there.
void InitParameter();

// The socket that init passes on in the environment variable ANDROID_SOCKET_<name>; -1 when there
// is none. The number is not checked further and may be 0 or negative.
[[nodiscard]] int GetInheritedSocket(const char* name);
