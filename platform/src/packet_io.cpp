// Packet framing: a 4-byte big-endian payload length, then the payload.
#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>

#include "zarnplatform.h"

namespace zarndaemon {
namespace io {

namespace {

constexpr size_t kReadChunkBytes = 64 * 1024;

// Sends all of [data, data + size), looping over partial writes and EINTR.
bool SendAll(int fd, const char *data, size_t size) {
    while (size > 0) {
        ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

// Receives exactly `size` bytes.  `eof_errno` is what a clean end of stream
// before the first byte reports; an end after it is always ECONNRESET.
bool RecvAll(int fd, char *data, size_t size, int eof_errno) {
    size_t got = 0;
    while (got < size) {
        ssize_t n = recv(fd, data + got, size - got, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = got == 0 ? eof_errno : ECONNRESET;
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool PacketWrite(int fd, const std::string &text) {
    if (text.size() > kMaxPacketBytes) {
        errno = EMSGSIZE;
        return false;
    }
    const uint32_t size = static_cast<uint32_t>(text.size());
    const char header[4] = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                            static_cast<char>(size >> 8), static_cast<char>(size)};
    // One buffer, one send in the common case: the daemon sees whole packets.
    std::string packet;
    packet.reserve(sizeof header + text.size());
    packet.append(header, sizeof header).append(text);
    return SendAll(fd, packet.data(), packet.size());
}

bool PacketRead(int fd, std::string &text) {
    unsigned char header[4];
    if (!RecvAll(fd, reinterpret_cast<char *>(header), sizeof header, ENODATA)) return false;
    const uint32_t size = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                          (uint32_t{header[2]} << 8) | uint32_t{header[3]};
    if (size > kMaxPacketBytes) {
        errno = EMSGSIZE;
        return false;
    }
    // The buffer grows with what actually arrives, so a peer that declares a
    // large packet and sends little cannot make us allocate the declared size.
    text.clear();
    while (text.size() < size) {
        const size_t offset = text.size();
        text.resize(offset + std::min<size_t>(size - offset, kReadChunkBytes));
        if (!RecvAll(fd, &text[offset], text.size() - offset, ECONNRESET)) return false;
    }
    return true;
}

}  // namespace io
}  // namespace zarndaemon
