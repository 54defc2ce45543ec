#include "reply_buffer.h"

#include <errno.h>
#include <sys/socket.h>

#include "zarnplatform.h"

namespace zarnd {

bool ReplyBuffer::Add(const std::string &text) {
    if (failed_) return false;
    if (text.size() > zarndaemon::io::kMaxPacketBytes) {
        errno = EMSGSIZE;
        return false;
    }
    const uint32_t size = static_cast<uint32_t>(text.size());
    const char header[4] = {static_cast<char>(size >> 24), static_cast<char>(size >> 16), static_cast<char>(size >> 8),
                            static_cast<char>(size)};
    pending_.append(header, sizeof header).append(text);
    return pending_.size() < kFlushBytes || Flush();
}

bool ReplyBuffer::Flush() {
    for (size_t sent = 0; !failed_ && sent < pending_.size();) {
        const ssize_t n = send(fd_, pending_.data() + sent, pending_.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) failed_ = true;  // gone, or not reading within the send time-out
        else sent += static_cast<size_t>(n);
    }
    pending_.clear();
    return !failed_;
}

}  // namespace zarnd
