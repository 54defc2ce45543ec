// Raw bytes from a peer, read as packets until the stream ends.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "zarnplatform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    // Inputs are kept below the socket buffer, so one write holds them all.
    if (size > 0 && write(fds[0], data, size) != static_cast<ssize_t>(size)) __builtin_trap();
    close(fds[0]);
    std::string text;
    while (zarndaemon::io::PacketRead(fds[1], text)) {
        if (text.size() > zarndaemon::io::kMaxPacketBytes) __builtin_trap();
    }
    close(fds[1]);
    return 0;
}
