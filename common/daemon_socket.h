// The daemon's endpoint, shared by the query handle and the connection class.
#ifndef ZARN_DAEMON_SOCKET_H
#define ZARN_DAEMON_SOCKET_H

#include <sys/un.h>

#include "names.h"

namespace zarn {

// Seconds that the library waits on any send or receive of its own handles.
constexpr long kDaemonTimeoutSeconds = 20;

// AF_UNIX, the socket path, every other byte zero.  Connect with the size of
// the whole structure, as the daemon's peers always have.
sockaddr_un DaemonAddress();

}  // namespace zarn

#endif  // ZARN_DAEMON_SOCKET_H
