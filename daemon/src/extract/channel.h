// Frames of wire.h over a stream socket, with a descriptor beside a frame.
#ifndef ZARND_EXTRACT_CHANNEL_H
#define ZARND_EXTRACT_CHANNEL_H

#include <chrono>
#include <string>

namespace zarnd {
namespace extract {

enum class Received { kFrame, kClosed, kTimeout, kBroken };

// Sends `payload` framed, with `fd` attached when it is not -1.  False when
// the peer is gone (no SIGPIPE).
bool SendFrame(int sock, const std::string &payload, int fd = -1);

// Receives one frame.  *fd, when not null, receives a descriptor that came
// with it (-1 when none).  Waits until `deadline` (steady clock; max() for
// no limit).  kBroken for a frame above the cap or a failed read.
Received ReceiveFrame(int sock, std::string *payload, int *fd,
                      std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max());

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_CHANNEL_H
