// The daemon's side of the conversation: one request per connection, read
// as one packet, answered with one or more packets.
//
//   "search":  {"total": N}, one packet per hit, {"success": true}
//   "document_get_by_internal_id":  {"success": true, "data": {fields}}
//   any failure:  {"success": false, "error": {"code": N, "message": "..."}}
//     (after the header of a search it ends the stream in place of the end
//     packet)
#ifndef ZARND_PROTOCOL_H
#define ZARND_PROTOCOL_H

#include <sys/types.h>

#include <functional>
#include <string>

#include "engine.h"

namespace zarnd {

// The process at the other end, as the kernel vouches for it.
struct Peer {
    uid_t uid;
    pid_t pid;
};

// Sends one packet; false when the client can no longer be reached.
using PacketSink = std::function<bool(const std::string &)>;

// The failure reply {"success": false, "error": {"code", "message"}}.
std::string FailureReply(int code, const std::string &message);

// Wall-clock seconds a search may take from its start to its last hit, not
// counting waits for the client to read; 0: no limit.  Past it no further
// hit is made and the reply ends with kBusy "search took too long" in place
// of the end packet.  The match itself is not interrupted (see Search).
constexpr double kDefaultSearchBudgetS = 5;

// What one request may use, as the command line set it.
struct RequestLimits {
    double search_budget_s = kDefaultSearchBudgetS;
    EngineOptions engine;  // how the index's shards are reached
};

// Answers one request text through `send`.
void HandleRequest(const std::string &text, const Peer &peer, const PacketSink &send,
                   const RequestLimits &limits = RequestLimits());

// Reads one request from `fd` and answers it there.
void ServeConnection(int fd, const Peer &peer, const RequestLimits &limits = RequestLimits());

}  // namespace zarnd

#endif  // ZARND_PROTOCOL_H
