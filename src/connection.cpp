// ZARN::IR::DAEMON::Connection: one connection to the search daemon that
// sends a search and hands every hit to a callback; also the search record
// built from a hit packet and the completion of every search request before
// it goes on the wire, which the streaming API shares.
#include "zarn_connection.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "daemon_reply.h"
#include "daemon_socket.h"
#include "json_text.h"
#include "log.h"
#include "zarnplatform.h"

namespace ZARN {
namespace IR {
namespace DAEMON {

namespace {

// Built when the library is loaded, gone when it is unloaded.
const std::string daemon_socket_path(zarn::kDaemonSocketPath);

// Storage of the record's texts: one byte more than the cut for the two
// paths and the highlight.
constexpr size_t kPathStorage = ZARN_RECORD_PATH_MAX + 1;
constexpr size_t kHighlightStorage = ZARN_RECORD_HIGHLIGHT_MAX + 1;

// The fragment length asked of the daemon is the record's highlight cut.
constexpr int kHighlightFragmentLength = ZARN_RECORD_HIGHLIGHT_MAX;

constexpr char kTextContent[] = "ZARNMDTextContent";

struct RecordDeleter {
    void operator()(_tag_search_record *record) const { Connection::FreeRecord(record); }
};
using RecordHolder = std::unique_ptr<_tag_search_record, RecordDeleter>;

// The member `key` of `object` when it is there, else null.  Never throws,
// whatever kind of value `object` is.
const Json::Value *Member(const Json::Value &object, const char *key) {
    if (!object.isObject()) return nullptr;
    return object.find(key, key + std::strlen(key));
}

// The text of a string member; "" when the member is absent or holds anything
// but a string, so that an odd hit still yields a record.
const char *TextMember(const Json::Value &object, const char *key) {
    const Json::Value *member = Member(object, key);
    return member != nullptr && member->isString() ? member->asCString() : "";
}

// Reads one reply packet and parses it into *value.  A failure is logged
// and told by its error; valid JSON that is not an object is a format error.
_tag_connection_error ReadReply(int fd, std::string *packet, Json::Value *value) {
    packet->clear();
    if (!zarndaemon::io::PacketRead(fd, *packet)) {
        ZARN_LOG(LOG_ERR, "Failed to read socket, errno(%d): %m", errno);
        return CONNECTION_ERROR_READ;
    }
    if (zarn::ClassifyReply(*packet, value) == zarn::ReplyKind::kMalformed) {
        ZARN_LOG(LOG_ERR, "response format is wrong: %s", packet->c_str());
        return CONNECTION_ERROR_FORMAT;
    }
    return CONNECTION_ERROR_NONE;
}

// Cuts by bytes: a multi-byte character at the limit may be cut in two.
void CopyText(char *destination, size_t limit, const char *text) {
    const size_t length = strnlen(text, limit - 1);
    std::memcpy(destination, text, length);
    destination[length] = '\0';
}

}  // namespace

Connection::Connection() : fd(-1), error(CONNECTION_ERROR_NONE), total(0), flag(CONNECTION_FLAG_NONE) {}

Connection::Connection(int /*unused*/) : Connection() {}

Connection::~Connection() { Close(); }

bool Connection::Connect(long timeout, ConnectionFlag flag) {
    // A write to a daemon that has gone must fail with EPIPE, not kill the caller.
    signal(SIGPIPE, SIG_IGN);

    // The descriptor is kept whatever happens next; Close releases it.
    fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        ZARN_LOG(LOG_ERR, "socket() failed");
        error = CONNECTION_ERROR_CONNECT;
        return false;
    }
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", daemon_socket_path.c_str());
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ZARN_LOG(LOG_ERR, "Connect domain socket failed, %m");
        error = CONNECTION_ERROR_CONNECT;
        return false;
    }
    const timeval limit = {timeout, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) < 0) {
        ZARN_LOG(LOG_ERR, "Failed to set socket recv timeout, %m");
        error = CONNECTION_ERROR_CONNECT;
        return false;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) < 0) {
        ZARN_LOG(LOG_ERR, "Failed to set socket send timeout, %m");
        error = CONNECTION_ERROR_CONNECT;
        return false;
    }
    this->flag = flag;
    return true;
}

void Connection::Close() {
    if (fd == -1) return;
    close(fd);
    fd = -1;
}

_tag_connection_error Connection::GetError() const { return error; }

void Connection::SetError(_tag_connection_error value) { error = value; }

bool Connection::SendQuery(const Json::Value &query, ZARNSearchCallback callback, void *user_data,
                           const std::string &agent, unsigned int uid) {
    if (!query.isObject() || fd == -1 || callback == nullptr) {
        error = CONNECTION_ERROR_INVALID;
        return false;
    }
    const Json::Value request = RewriteSearchQuery(query, uid, agent.c_str(), nullptr, 0, flag);
    if (!zarndaemon::io::PacketWrite(fd, zarn::json::ToString(request))) {
        error = CONNECTION_ERROR_WRITE;
        return false;
    }
    return ProcessRepsonse(callback, user_data);
}

bool Connection::ProcessRepsonse(ZARNSearchCallback callback, void *user_data) {
    if (callback == nullptr) {
        error = CONNECTION_ERROR_INVALID;
        return false;
    }
    std::string packet;
    Json::Value value;
    // Any object is taken as the header; one without "total" announces no
    // hits.  A header that fails to parse is a format error: JsonCpp leaves
    // the value null after a failed parse, so no "total" could rescue it.
    _tag_connection_error failure = ReadReply(fd, &packet, &value);
    if (failure != CONNECTION_ERROR_NONE) {
        error = failure;
        return false;
    }
    ProcessSearchResultHeader(value);

    // Only "total" hits are read: the end packet after a full page stays unread.
    for (int delivered = 0; delivered < total; ++delivered) {
        failure = ReadReply(fd, &packet, &value);
        if (failure != CONNECTION_ERROR_NONE) {
            error = failure;
            return false;
        }
        if (value.isMember("success")) return true;
        // Freed when the callback returns, and when it throws.
        const RecordHolder record(BuildRecordFromJson(value));
        if (!callback(record.get(), user_data)) return true;
    }
    return true;
}

void Connection::ProcessSearchResultHeader(const Json::Value &header) {
    total = zarn::ReplyTotal(header);
}

_tag_search_record *Connection::BuildRecordFromJson(const Json::Value &hit) {
    // Value-initialised, so that the holder frees only what was allocated
    // when a later allocation throws.
    RecordHolder record(new _tag_search_record());
    record->path = new char[kPathStorage];
    record->fs_name = new char[kPathStorage];

    CopyText(record->path, ZARN_RECORD_PATH_MAX, TextMember(hit, "ZARNMDPath"));
    CopyText(record->fs_name, ZARN_RECORD_PATH_MAX, TextMember(hit, "ZARNMDFSName"));
    CopyText(record->extension, ZARN_RECORD_EXTENSION_MAX, TextMember(hit, "ZARNMDExtension"));
    record->is_dir = std::strcmp(TextMember(hit, "ZARNMDIsDir"), "y") == 0 ? 1 : 0;

    const Json::Value *additional = Member(hit, "additional");
    const Json::Value *doc_id = additional != nullptr ? Member(*additional, "doc_id") : nullptr;
    if (doc_id != nullptr && doc_id->isInt()) {
        record->doc_id = doc_id->asInt();
    } else {
        record->doc_id = 0;
        ZARN_LOG(LOG_WARNING, "doc_id is not attached to search result");
    }

    const Json::Value *highlight = Member(hit, "highlight");
    if (highlight != nullptr && highlight->isObject()) {
        record->highlight = new char[kHighlightStorage];
        CopyText(record->highlight, ZARN_RECORD_HIGHLIGHT_MAX, TextMember(*highlight, kTextContent));
    }
    return record.release();
}

void Connection::FreeRecord(_tag_search_record *record) {
    if (record == nullptr) return;
    delete[] record->path;
    delete[] record->fs_name;
    delete[] record->highlight;
    delete record;
}

Json::Value Connection::RewriteSearchQuery(const Json::Value &request, unsigned int uid,
                                           const char *agent, ZARNQuerySorter *sorters,
                                           int sorter_count, ConnectionFlag flags) {
    Json::Value result(request);
    Json::Value &data = result["data"];

    Json::Value &permission = data["filters"][0u];
    permission["name"] = "permission";
    permission["data"] = Json::UInt(uid);

    Json::Value &collector = data["collector"];
    collector["agent"] = agent;
    collector["uid"] = Json::UInt(uid);

    const bool highlight = (flags & CONNECTION_FLAG_HIGHLIGHT) != 0;
    Json::Value fields(Json::arrayValue);
    fields.append("ZARNMDPath");
    fields.append("ZARNMDFSName");
    fields.append("ZARNMDExtension");
    fields.append("ZARNMDIsDir");
    if (highlight) fields.append(kTextContent);
    data["fields"] = fields;

    for (int i = 0; i < sorter_count; ++i) {
        Json::Value &key = data["sorter"][Json::ArrayIndex(i)];
        key["field"] = sorters[i].field;
        key["direction"] = (sorters[i].options & SORTER_OPTION_DESC) != 0 ? "desc" : "asc";
        if ((sorters[i].options & SORTER_OPTION_NATURE_SORT) != 0) key["nature_sort"] = true;
    }

    if (highlight) {
        Json::Value &wanted = data["highlight"][0u];
        wanted["field"] = kTextContent;
        wanted["frag_length"] = kHighlightFragmentLength;
    }
    return result;
}

}  // namespace DAEMON
}  // namespace IR
}  // namespace ZARN
