#pragma once

// The few socket calls of the link, over Winsock on Windows and BSD sockets elsewhere. Each keeps
// the Winsock call's meaning and results (-1 for a failed call, the error number from
// lastError()), so that the link's steps and logged texts are the same on every platform.

#include <cstdint>

namespace tzSocket {

#if defined(_WIN32)
using Handle = std::uintptr_t; // SOCKET
#else
using Handle = std::intptr_t; // a file descriptor
#endif
//! The value of a handle that holds no socket (all bits set, as INVALID_SOCKET).
constexpr Handle INVALID = Handle(~Handle(0));

//! WSAStartup asking for version 2.2 (nothing to do elsewhere); false on failure.
bool startup();
//! WSACleanup (nothing to do elsewhere).
void cleanup();
//! An IPv4 TCP stream socket, or INVALID.
Handle create();
//! Connects to the IPv4 address text (inet_addr) and port; false on failure.
bool connectTo(Handle socket, const char *address, std::uint16_t port);
//! One send call with all the bytes and no flags; the bytes sent, or -1.
int send(Handle socket, const char *data, int length);
//! One blocking recv of at most length bytes; the bytes read, 0 when the peer has closed, or -1.
int recv(Handle socket, char *buffer, int length);
//! Ends both directions of the connection: a recv blocked on it in another thread returns 0.
//! The handle stays open (and its number taken) until close.
void shutdown(Handle socket);
//! Closes the socket. A recv blocked on it in another thread returns at once (elsewhere than
//! on Windows, closing alone would not wake it: the socket is shut down first), and any later
//! call on the handle fails.
void close(Handle socket);
//! The error number of the last failed call (WSAGetLastError, or errno).
int lastError();

} // namespace tzSocket
