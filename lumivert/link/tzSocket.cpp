#include "tzSocket.h"

#if defined(_WIN32)
#include <winsock2.h>
#else
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace tzSocket {

#if defined(_WIN32)

bool startup()
{
    WSADATA wsa;
    return WSAStartup(MAKEWORD(2, 2), &wsa) == 0;
}

void cleanup()
{
    WSACleanup();
}

Handle create()
{
    return Handle(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
}

int lastError()
{
    return WSAGetLastError();
}

void shutdown(Handle socket)
{
    if (socket != INVALID)
        ::shutdown(SOCKET(socket), SD_BOTH);
}

void close(Handle socket)
{
    ::closesocket(SOCKET(socket));
}

#else

bool startup()
{
    return true;
}

void cleanup() { }

Handle create()
{
    // Not inherited by the programs the viewer may start.
    return Handle(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
}

int lastError()
{
    return errno;
}

void shutdown(Handle socket)
{
    if (socket != INVALID)
        ::shutdown(int(socket), SHUT_RDWR);
}

void close(Handle socket)
{
    if (socket == INVALID)
        return;
    ::shutdown(int(socket), SHUT_RDWR);
    ::close(int(socket));
}

#endif

bool connectTo(Handle socket, const char *address, std::uint16_t port)
{
    sockaddr_in server {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = inet_addr(address);
#if defined(_WIN32)
    return ::connect(SOCKET(socket), reinterpret_cast<sockaddr *>(&server), 16) == 0;
#else
    return ::connect(int(socket), reinterpret_cast<sockaddr *>(&server), 16) == 0;
#endif
}

int send(Handle socket, const char *data, int length)
{
#if defined(_WIN32)
    return ::send(SOCKET(socket), data, length, 0);
#else
    // MSG_NOSIGNAL: a closed peer gives -1 (EPIPE), as on Windows, not a SIGPIPE that ends the
    // viewer.
    return int(::send(int(socket), data, size_t(length), MSG_NOSIGNAL));
#endif
}

int recv(Handle socket, char *buffer, int length)
{
#if defined(_WIN32)
    return ::recv(SOCKET(socket), buffer, length, 0);
#else
    ssize_t n;
    do
        n = ::recv(int(socket), buffer, size_t(length), 0);
    while (n < 0 && errno == EINTR); // a signal is not a network error
    return int(n);
#endif
}

} // namespace tzSocket
