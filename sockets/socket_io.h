// Reading and writing of fixed-size records on client sockets.
#pragma once

#include <cstddef>

#include "protocol/control.h"

// Blocks until length bytes have arrived. Returns 0, or -1 at the end of the stream or on an
// error; a length of 0 or less returns 0 at once.
[[nodiscard]] int ReadFull(int fd, void* buffer, int length);

// Sends length bytes without blocking and without raising SIGPIPE. False when they could not all be
// sent: the client has gone, or its socket buffer is full and may hold the first part.
[[nodiscard]] bool SendAll(int fd, const void* data, size_t length);

// Sends the reply to a client. Never blocks. Returns 0, or -1 when it could not be sent whole.
int SendReply(int client, const shd::ControlReply& reply);
