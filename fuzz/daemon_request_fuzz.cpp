// A request text to the daemon's request handling, over a tiny index built
// at start-up, as root or as a user; every reply is checked for its shape and
// for documents the peer may not see, so that logic faults crash too.
//
// Byte 0 of the input chooses:
//   bits 0-1  the peer: root, uid 1000, uid 54321 (unknown to the user
//             database), root again
//   bit 2     the rest is a query string, sent in a search as the library
//             builds one (sorted by name, highlighted), so that the query
//             parser is reached without the fuzzer learning JSON first
//   bits 3-4  the client stops reading after 1, 2 or 3 packets (0: never)
//   bit 5     a search budget of a nanosecond: searches are cut short
// The rest is the request text.
//
// Runs inside the test sandbox only: it writes its share below /var.
#include <sys/stat.h>
#include <sys/statfs.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "index_run.h"
#include "json_text.h"
#include "protocol.h"
#include "request.h"
#include "utf8.h"

// The daemon's log lines are formatted, so that a bad format still shows,
// and dropped rather than sent to the machine's log a million times.
extern "C" void vsyslog(int, const char *format, va_list args) {
    char line[1024];
    vsnprintf(line, sizeof line, format, args);
}
extern "C" void __vsyslog_chk(int priority, int, const char *format, va_list args) { vsyslog(priority, format, args); }
extern "C" void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}
extern "C" void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

namespace {

constexpr uint32_t kPeers[] = {0, 1000, 54321, 0};
constexpr double kBudgetS = 2, kNoBudgetS = 1e-9;
// Readable by root only: a 0600 file, and a 0750 folder with what it holds.
const char *const kHiddenPaths[] = {"/docs/private.txt", "/docs/closed", "/docs/closed/inner.txt"};

std::set<int64_t> hidden_ids;
uint64_t document_count = 0;

[[noreturn]] void Fault(const std::string &what, const std::string &request) {
    std::fprintf(stderr, "FAULT: %s\nrequest: %s\n", what.c_str(), request.substr(0, 2000).c_str());
    std::abort();
}

struct Reply {
    std::vector<std::string> packets;
    bool sent_after_cut = false;  // a packet after the client had gone
};

Reply Ask(const std::string &text, uint32_t peer_uid, size_t read_limit, double budget_s = kBudgetS) {
    Reply reply;
    zarnd::HandleRequest(
        text, {peer_uid, 1},
        [&](const std::string &packet) {
            if (read_limit != 0 && reply.packets.size() >= read_limit) reply.sent_after_cut = true;
            reply.packets.push_back(packet);
            return read_limit == 0 || reply.packets.size() < read_limit;
        },
        zarnd::RequestLimits{budget_s, {}});
    return reply;
}

bool IsFailure(const Json::Value &packet) {
    static const std::set<int> codes = {400, 403, 404, 500, 503};
    const Json::Value &error = packet["error"];
    return packet.size() == 2 && packet["success"] == false && error.isObject() && error.size() == 2 &&
           error["code"].isInt() && codes.count(error["code"].asInt()) == 1 && error["message"].isString();
}

bool IsEnd(const Json::Value &packet) { return packet.size() == 1 && packet["success"] == true; }

// The hits a search asked for at most; 0 when the request does not say.
uint32_t PageSize(const Json::Value &request) {
    const Json::Value &size = request["data"]["size"];
    return size.isNull() ? zarnd::kDefaultPageSize : size.isUInt() ? size.asUInt() : 0;
}

void Check(const std::string &text, uint32_t peer_uid, size_t read_limit, const Reply &reply) {
    if (reply.packets.empty()) Fault("no reply at all", text);
    if (reply.sent_after_cut) Fault("a packet sent after the client had gone", text);
    std::vector<Json::Value> packets(reply.packets.size());
    for (size_t i = 0; i < packets.size(); ++i)
        if (!zarn::json::FromString(reply.packets[i], &packets[i]) || !packets[i].isObject())
            Fault("a packet that is not a JSON object: " + reply.packets[i], text);
    Json::Value request;
    const bool parsed = zarn::json::FromString(text, &request) && request.isObject();
    const Json::Value &first = packets[0];
    if (IsFailure(first)) {
        const int code = first["error"]["code"].asInt();
        if (packets.size() != 1) Fault("packets after a failure", text);
        if (code == 403 && peer_uid == 0) Fault("root refused", text);
        if (code == 500) Fault("an internal error: " + reply.packets[0], text);
        return;
    }
    if (!parsed) Fault("an answer to a request that does not parse", text);
    if (request["command"] == "document_get_by_internal_id") {
        if (packets.size() != 1 || first.size() != 2 || first["success"] != true || !first["data"].isObject())
            Fault("not a document reply: " + reply.packets[0], text);
        if (peer_uid != 0 && hidden_ids.count(request["data"]["doc_id"].asInt64()) == 1)
            Fault("a document the peer may not read", text);
        return;
    }
    if (request["command"] != "search" || first.size() != 1 || !first["total"].isUInt64())
        Fault("not a search header: " + reply.packets[0], text);
    const uint64_t total = first["total"].asUInt64();
    if (total > document_count - (peer_uid != 0 ? hidden_ids.size() : 0))
        Fault("a total above what the peer may see", text);
    size_t hits = packets.size() - 1;
    if (hits > 0 && (IsEnd(packets.back()) || IsFailure(packets.back())))
        --hits;
    else if (read_limit == 0 || packets.size() != read_limit)
        Fault("a search reply that stops short of its end", text);
    for (size_t i = 1; i <= hits; ++i) {
        const Json::Value &doc_id = packets[i]["additional"]["doc_id"];
        if (!doc_id.isUInt() || doc_id.asUInt() == 0 || packets[i].isMember("success") || packets[i].isMember("total"))
            Fault("not a hit: " + reply.packets[i], text);
        if (peer_uid != 0 && hidden_ids.count(doc_id.asInt64()) == 1) Fault("a hit the peer may not see", text);
    }
    if (hits > PageSize(request) || hits > total) Fault("more hits than asked for or counted", text);
}

// A search as the library builds it, around a query string.
std::string LibrarySearch(const std::string &query, uint32_t uid) {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"from": 0, "size": 20, "indice": ["fileindex_docs"],
        "fields": ["ZARNMDPath", "ZARNMDFSName", "ZARNMDExtension", "ZARNMDIsDir", "ZARNMDTextContent"],
        "sorter": [{"field": "ZARNMDFSName", "direction": "asc", "nature_sort": true}],
        "highlight": [{"field": "ZARNMDTextContent", "frag_length": 350}], "collector": {"agent": "fuzz"}}})",
                           &request);
    Json::Value &data = request["data"];
    data["query_string"]["query"] = zarnd::RepairUtf8(query.data(), query.size());
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = uid;
    data["collector"]["uid"] = uid;
    return zarn::json::ToString(request);
}

// A share of a few files of each kind, indexed; the ids of the documents
// only root may see.
void BuildIndex() {
    struct statfs var;
    if (getenv("ZARN_TEST_SANDBOX") == nullptr || statfs("/var", &var) != 0 || var.f_type != 0x01021994) {
        std::fprintf(stderr, "run me inside tests/support/sandbox.sh\n");
        std::exit(2);
    }
    const int built = std::system(R"sh(umask 022 && rm -rf /var/docs && mkdir /var/docs && cd /var/docs &&
        mkdir -p report logs closed 'with space' deep/a/b/c &&
        echo 'The quick brown fox jumps over the lazy dog' > fox.txt && echo 'fox secrets' > private.txt &&
        chmod 600 private.txt && echo 'fox inside the closed folder' > closed/inner.txt && chmod 750 closed &&
        echo 'annual report: revenue grew 12% in 2020' > report/annual_report-2020.txt &&
        echo 'gzipped fox notes' | gzip > report/notes.txt.gz && printf '\346\227\245\346\234\254\350\252\236 text' > cjk.txt &&
        for n in 1 2 10 20 100; do echo "entry $n of the log" > logs/file$n.log; done &&
        printf 'caf\351 ol\351 needle\n' > 'with space/latin1.txt' && echo deep > deep/a/b/c/leaf.md &&
        ln -s fox.txt link.txt && printf '\177ELF\0\0\1fox' > bin.dat &&
        printf 'docs\t/var/docs\n' > /var/shares &&
        echo '[{"path": "/docs"}]' > /var/packages/Norvex/etc/fileindex.folders)sh");
    setenv("ZARN_SHARE_TABLE", "/var/shares", 1);
    if (built != 0 || zarnd::RunIndexer({}) != 0) Fault("the index could not be built", "");
    // Its own oracle: root sees every path, a user none of the hidden ones.
    std::map<std::string, int64_t> ids;
    Json::Value all;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": "fileindex_docs", "size": 1000}})", &all);
    for (const std::string &packet : Ask(zarn::json::ToString(all), 0, 0).packets) {
        Json::Value hit;
        zarn::json::FromString(packet, &hit);
        if (hit.isMember("total")) document_count = hit["total"].asUInt64();
        if (hit.isMember("additional")) ids[hit["ZARNMDPath"].asString()] = hit["additional"]["doc_id"].asInt64();
    }
    for (const char *path : kHiddenPaths) {
        if (ids.count(path) == 0) Fault(std::string("not indexed: ") + path, "");
        hidden_ids.insert(ids[path]);
    }
    if (document_count != ids.size() || document_count < 15) Fault("the share was not indexed whole", "");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    BuildIndex();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint32_t peer_uid = kPeers[data[0] & 3];
    const size_t read_limit = (data[0] >> 3) & 3;
    std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    if ((data[0] & 4) != 0) text = LibrarySearch(text, peer_uid);
    const Reply reply = Ask(text, peer_uid, read_limit, (data[0] & 32) != 0 ? kNoBudgetS : kBudgetS);
    if (getenv("ZARN_FUZZ_SHOW") != nullptr)  // for triage: the replies of one input
        for (const std::string &packet : reply.packets) std::fprintf(stderr, "%.300s\n", packet.c_str());
    Check(text, peer_uid, read_limit, reply);
    return 0;
}
