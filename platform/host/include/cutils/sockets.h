// Stand-in for Android's local sockets on a development machine.
#pragma once

extern "C" {

// Creates a listening local socket of the given type (SOCK_STREAM = 1) in the given namespace
// (1, the reserved one, is /dev/socket). Returns its descriptor, or -1, also when somebody
// listens on that name already.
int socket_local_server(const char* name, int namespace_id, int type);
}
