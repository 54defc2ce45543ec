// The packets of one reply, framed as the platform frames them (a 4-byte
// big-endian length, then the text) and sent in large writes: a page of
// hits reaches the client in a few writes rather than one per hit, so the
// client reads on without waiting for each packet.
#ifndef ZARND_REPLY_BUFFER_H
#define ZARND_REPLY_BUFFER_H

#include <string>

namespace zarnd {

class ReplyBuffer {
public:
    explicit ReplyBuffer(int fd) : fd_(fd) {}

    // Queues one packet, sending what is queued once it is large; false when
    // the client can no longer be reached or the text is above the packet
    // size limit.
    bool Add(const std::string &text);

    // Sends what is queued; false when the client can no longer be reached.
    bool Flush();

private:
    static constexpr size_t kFlushBytes = 64 * 1024;

    const int fd_;
    std::string pending_;
    bool failed_ = false;
};

}  // namespace zarnd

#endif  // ZARND_REPLY_BUFFER_H
