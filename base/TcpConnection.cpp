#include "base/TcpConnection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace orvex {

bool ResolveIPv4(const char* host, in_addr* out) {
    if (!host || !*host || !out) return false;
    if (inet_pton(AF_INET, host, out) == 1) return true;
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) return false;
    *out = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

bool ConnectTcp(int fd, const char* host, uint16_t port, const std::atomic<bool>& running, int limitMs) {
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (fd < 0 || !ResolveIPv4(host, &addr.sin_addr)) return false;

    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
    if (!connected && errno == EINPROGRESS) {
        for (int waited = 0; running && waited < limitMs; waited += 50) {
            pollfd p{fd, POLLOUT, 0};
            const int rc = poll(&p, 1, 50);
            if (rc < 0 && errno != EINTR) break;
            if (rc > 0) {
                int err = 0;
                socklen_t len = sizeof(err);
                connected = getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
                break;
            }
        }
    }
    fcntl(fd, F_SETFL, flags);
    return connected;
}

bool SendAll(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    size_t sent = 0;
    while (sent < length) {
        const ssize_t n = fd < 0 ? -1 : send(fd, p + sent, length - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (fd >= 0 && errno == EINTR) continue;
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace orvex
