// A listening TCP socket on 127.0.0.1, for the simulator's and the tests'
// servers.
#ifndef ORVEX_SIM_PROTOCOL_LOOPBACK_H
#define ORVEX_SIM_PROTOCOL_LOOPBACK_H

#include <cstdint>

namespace orvex_test {

// Listens on 127.0.0.1:port (0 picks a free port) with the given backlog.
// Returns the socket and stores the port actually bound, or -1 on failure.
int ListenLoopback(uint16_t port, int backlog, uint16_t* boundPort);

}  // namespace orvex_test

#endif
