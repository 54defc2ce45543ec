#include "protocol.h"

#include <errno.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "engine.h"
#include "failure.h"
#include "json_text.h"
#include "log.h"
#include "perm.h"
#include "reply_buffer.h"
#include "request.h"
#include "share_index.h"
#include "utf8.h"
#include "zarnplatform.h"

namespace zarnd {

namespace {

std::unique_ptr<SearchIndex> OpenIndex(const std::string &index_id, const EngineOptions &engine) {
    return OpenSearchIndex(IndexDirOfShare(ShareOfIndexId(index_id)), engine);
}

// Client text as a log line may show it: control characters, quotes and
// bytes that are not UTF-8 escaped, at most 200 bytes, so that no client can
// forge, break or bloat lines of the daemon's log.
std::string Loggable(const std::string &text) {
    constexpr size_t kMaxLogged = 200;
    std::string shown;
    size_t i = 0;
    while (i < text.size() && shown.size() < kMaxLogged) {
        const size_t length = Utf8SequenceLength(text.data() + i, text.size() - i);
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (length == 0 || c < 0x20 || c == 0x7F || c == '"' || c == '\\') {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            shown += escaped;
            ++i;
        } else {
            shown.append(text, i, length);
            i += length;
        }
    }
    return i < text.size() ? shown + "..." : shown;
}

[[noreturn]] void Refuse(const Peer &peer, const std::string &what) {
    ZARN_LOG(LOG_WARNING, "refused peer uid %u pid %d: %s", static_cast<unsigned>(peer.uid),
             static_cast<int>(peer.pid), Loggable(what).c_str());
    throw Failure(kForbidden, "permission denied: " + what);
}

// The user whose permissions filter the hits: the permission filter's uid,
// which only root may set to another user; without one, the peer itself.
// Null when nothing is to be filtered (root).
std::unique_ptr<Credentials> Reader(const SearchRequest &request, const Peer &peer) {
    uint32_t uid = peer.uid;
    if (request.has_permission_uid) {
        uid = request.permission_uid;
        if (!PeerMayActAs(peer.uid, uid)) Refuse(peer, "search as uid " + std::to_string(uid));
    }
    if (uid == 0) return nullptr;
    return std::unique_ptr<Credentials>(new Credentials(LookupCredentials(uid)));
}

void Search(const Json::Value &data, const Peer &peer, const PacketSink &send, const RequestLimits &limits) {
    using Clock = std::chrono::steady_clock;
    const double budget_s = limits.search_budget_s;
    Clock::time_point deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                    std::chrono::duration<double>(budget_s));
    // Time spent waiting on a slow reader moves the deadline: the budget is
    // the daemon's own work.
    const auto timed_send = [&](const std::string &packet) {
        const Clock::time_point before = Clock::now();
        const bool sent = send(packet);
        deadline += Clock::now() - before;
        return sent;
    };
    const SearchRequest request = ParseSearchRequest(data);
    const std::unique_ptr<Credentials> reader = Reader(request, peer);
    ZARN_LOG(LOG_INFO, "collector: agent \"%s\" uid %u (peer uid %u) searches %s",
             Loggable(request.agent).c_str(),
             request.has_collector_uid ? request.collector_uid : static_cast<unsigned>(peer.uid),
             static_cast<unsigned>(peer.uid), Loggable(request.index_id).c_str());
    SearchPlan plan = request.plan;
    plan.reader = reader.get();
    // The match itself runs to its end: Xapian 1.4.22's match time limit
    // arms a timer that may write into a match that has returned (memory
    // corruption, found by the fuzzer).  The caps on the request bound the
    // match; the budget, the hits after it.
    bool reachable = true, late = false;
    OpenIndex(request.index_id, limits.engine)
        ->Search(
            plan,
            [&](uint64_t total) {
                Json::Value header;
                header["total"] = Json::UInt64(total);
                reachable = timed_send(zarn::json::ToString(header));
            },
            [&](const Hit &hit) {
                if (!reachable) return false;
                late = budget_s > 0 && Clock::now() > deadline;
                if (late) return false;
                Json::Value packet = hit.fields;
                packet["additional"]["doc_id"] = hit.doc_id;
                if (!hit.highlight.isNull()) packet["highlight"] = hit.highlight;
                reachable = timed_send(zarn::json::ToString(packet));
                return reachable;
            });
    if (!reachable) return;
    if (late) throw Failure(kBusy, "search took too long");
    Json::Value end;
    end["success"] = true;
    send(zarn::json::ToString(end));
}

void DocumentGet(const Json::Value &data, const Peer &peer, const PacketSink &send, const EngineOptions &engine) {
    const DocumentRequest request = ParseDocumentRequest(data);
    Json::Value fields;
    std::string access;
    if (!OpenIndex(request.index_id, engine)->Fetch(request.doc_id, &fields, &access))
        throw Failure(kNotFound, "no document " + std::to_string(request.doc_id));
    if (peer.uid != 0 && !MayRead(LookupCredentials(peer.uid), access))
        Refuse(peer, "document " + std::to_string(request.doc_id) + " of " + request.index_id);
    Json::Value reply;
    reply["success"] = true;
    reply["data"] = fields;
    send(zarn::json::ToString(reply));
}

int FailurePriority(int code) {
    if (code >= 500) return LOG_ERR;
    if (code == kForbidden) return LOG_DEBUG;  // already logged as a refusal
    return LOG_INFO;
}

}  // namespace

std::string FailureReply(int code, const std::string &message) {
    Json::Value reply;
    reply["success"] = false;
    reply["error"]["code"] = code;
    reply["error"]["message"] = RepairUtf8(message.data(), message.size());  // may quote a client
    return zarn::json::ToString(reply);
}

void HandleRequest(const std::string &text, const Peer &peer, const PacketSink &send, const RequestLimits &limits) {
    try {
        Json::Value request;
        if (!zarn::json::FromString(text, &request) || !request.isObject())
            throw Failure(kBadRequest, "request is not a JSON object");
        const Json::Value &command = request["command"];
        if (command == "search")
            Search(request["data"], peer, send, limits);
        else if (command == "document_get_by_internal_id")
            DocumentGet(request["data"], peer, send, limits.engine);
        else
            throw Failure(kBadRequest, "unknown command");
    } catch (const Failure &failure) {
        ZARN_LOG(FailurePriority(failure.code()), "request failed (%d): %s", failure.code(),
                 Loggable(failure.what()).c_str());
        send(FailureReply(failure.code(), failure.what()));
    } catch (const std::exception &e) {
        ZARN_LOG(LOG_ERR, "request failed: %s", Loggable(e.what()).c_str());
        send(FailureReply(kInternal, "internal error"));
    }
}

void ServeConnection(int fd, const Peer &peer, const RequestLimits &limits) {
    std::string text;
    if (!zarndaemon::io::PacketRead(fd, text)) {
        ZARN_LOG(LOG_DEBUG, "no request from peer pid %d, errno(%d): %m", static_cast<int>(peer.pid),
                 errno);
        return;
    }
    ReplyBuffer reply(fd);
    HandleRequest(text, peer, [&reply](const std::string &packet) { return reply.Add(packet); }, limits);
    reply.Flush();
}

}  // namespace zarnd
