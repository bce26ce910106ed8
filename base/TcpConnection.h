// TCP client primitives shared by the quote-server and file-service
// workers: name resolution, a connect that waits in short slices, whole-
// buffer sends, and the draw of the next front to try.
//
// Everything here works on a socket descriptor the caller owns; nothing
// keeps state. Called on the worker threads.
#ifndef ORVEX_BASE_TCP_CONNECTION_H
#define ORVEX_BASE_TCP_CONNECTION_H

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace orvex {

// The IPv4 address of a dotted address or a host name. False when the name
// does not resolve: the caller must then not connect at all (a zero address
// would reach a listener on this machine).
bool ResolveIPv4(const char* host, in_addr* out);

// Connects fd to host:port. The connect waits as long as a blocking one
// would (up to limitMs), but in slices of 50 ms, and gives up as soon as
// `running` is cleared, so that a worker being released never hangs here.
// The descriptor is left in blocking mode. False on any failure, including
// a host that does not resolve; a socket whose connect failed is not to be
// used for another attempt.
bool ConnectTcp(int fd, const char* host, uint16_t port, const std::atomic<bool>& running, int limitMs);

// Sends the whole buffer (MSG_NOSIGNAL: a peer that has gone away fails the
// send instead of raising SIGPIPE), retrying after signals. False when a
// send fails.
bool SendAll(int fd, const void* data, size_t length);

// The next front to try of `count`, drawn with next() (a source of
// non-negative random numbers) among those usable(i) accepts: up to
// maxDraws random draws, then the next usable one after the last draw.
// -1 when none is usable.
template <class Usable, class Next>
int DrawFront(int count, Usable usable, Next next, int maxDraws) {
    if (count <= 0) return -1;
    int i = 0;
    for (int draw = 0; draw < maxDraws; ++draw) {
        i = static_cast<int>(static_cast<unsigned>(next()) % static_cast<unsigned>(count));
        if (usable(i)) return i;
    }
    for (int step = 0; step < count; ++step) {
        i = (i + 1) % count;
        if (usable(i)) return i;
    }
    return -1;
}

}  // namespace orvex

#endif
