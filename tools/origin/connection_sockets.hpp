#pragma once

#include "host/event.hpp"

namespace tidalcrest::origin {

// The HTTP library keeps the sockets of its connections to itself. These find them by their ports among the
// descriptors of this process.

/// Shuts down every connection to the server on that port: reads and writes on it end at once.
void shut_down_connections(int server_port);

/// Ends the connection of the client on `client_port` with a TCP reset. A reset throws away what the client's
/// side has not taken yet, so that is waited for, unless `stopping` is set.
void reset_connection(int server_port, int client_port, const sync::Event& stopping);

}  // namespace tidalcrest::origin
