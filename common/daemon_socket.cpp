#include "daemon_socket.h"

#include <sys/socket.h>

#include <cstring>

namespace zarn {

sockaddr_un DaemonAddress() {
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kDaemonSocketPath, sizeof kDaemonSocketPath);
    return address;
}

}  // namespace zarn
