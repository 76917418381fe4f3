#include <mdxlib/platform/McSocket.h>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

int McSocket::connect(char const* host, int port, int timeoutMsec, int, int)
{
    if (!host || port <= 0)
        return -1;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, std::to_string(port).c_str(), &hints, &found) != 0 || !found)
        return -1;
    int result = -1;
    for (addrinfo* a = found; a && result < 0; a = a->ai_next) {
        int const fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0)
            continue;
        int status = ::connect(fd, a->ai_addr, a->ai_addrlen);
        if (status != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            if (poll(&p, 1, timeoutMsec) == 1) {
                int error = 0;
                socklen_t length = sizeof error;
                getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
                status = error == 0 ? 0 : -1;
            } else {
                status = -1;
            }
        }
        if (status == 0) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            result = fd;
        } else {
            ::close(fd);
        }
    }
    freeaddrinfo(found);
    return result;
}

void McSocket::close(int socket)
{
    if (socket >= 0)
        ::close(socket);
}
