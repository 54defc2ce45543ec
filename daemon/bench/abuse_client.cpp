// A hostile local user, and a well-behaved one, against a running daemon,
// through its socket with raw packets.  Each role prints one JSON line of
// what it saw; the abuse test runs the roles at a small scale, abuse.sh at a
// large one.
//
//   zarnelasticd_abuse [--as UID] flood SHARE SECONDS CONNECTIONS [KINDS]
//       CONNECTIONS threads, each a loop of one kind of abuse until SECONDS
//       are up: 0 match-all sorted by path with every field, 1 wide
//       wildcards highlighted, 2 the deepest page, 3 a request sent in half
//       then silence, 4 a large reply never read, 5 requests above the caps;
//       KINDS (digits, default 012345) chooses the kinds.
//   zarnelasticd_abuse [--as UID] search SHARE COUNT [SECONDS]
//       COUNT ordinary searches one after another (or fewer, when SECONDS are
//       up first), with their latency.
//   zarnelasticd_abuse [--as UID] mutate SHARE COUNT SECONDS [SEED]
//       COUNT random and mutated requests (within SECONDS), on 4 threads.
//
// A reply is "malformed" unless it is exactly one failure packet, a search's
// header, hits and end (or a failure in place of the end), or one document
// reply; a request left without reply nor close for the hang limit is a
// "hang".  Exit status 0, or 2 for a wrong command line.
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "daemon_socket.h"
#include "json_text.h"
#include "zarnplatform.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string share;
uint32_t my_uid = 0;

// What came back for one request.
struct Outcome {
    enum Kind { kOk, kFailure, kClosed, kCut, kHang, kMalformed, kNoConnection } kind = kClosed;
    int code = 0;  // of a failure
    size_t hits = 0;
    std::string detail;
};

const char *KindName(Outcome::Kind kind) {
    static const char *const names[] = {"ok", "failure", "closed", "cut", "hang", "malformed", "no_connection"};
    return names[kind];
}

int Connect(int hang_limit_ms) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, zarn::kDaemonSocketPath, sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    const timeval timeout = {hang_limit_ms / 1000, hang_limit_ms % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    return fd;
}

bool IsFailure(const Json::Value &packet) {
    const Json::Value &error = packet["error"];
    return packet.size() == 2 && packet["success"] == false && error.isObject() && error["code"].isInt() &&
           error["message"].isString();
}
bool IsEnd(const Json::Value &packet) { return packet.size() == 1 && packet["success"] == true; }
bool IsDocument(const Json::Value &packet) {
    return packet.size() == 2 && packet["success"] == true && packet["data"].isObject();
}

// Reads the whole reply of one request, and makes sure nothing follows it.
Outcome ReadReply(int fd) {
    Outcome outcome;
    const auto fault = [&](Outcome::Kind kind, const std::string &why) {
        outcome.kind = kind;
        outcome.detail = why.substr(0, 200);
        return outcome;
    };
    std::vector<Json::Value> packets;
    for (bool ended = false;;) {
        std::string text;
        errno = 0;
        if (!zarndaemon::io::PacketRead(fd, text)) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return fault(Outcome::kHang, "no reply, no close");
            if (ended || packets.empty()) break;
            return fault(Outcome::kCut, "closed inside the reply");
        }
        if (ended) return fault(Outcome::kMalformed, "a packet after the end: " + text);
        packets.emplace_back();
        if (!zarn::json::FromString(text, &packets.back()) || !packets.back().isObject())
            return fault(Outcome::kMalformed, "not a JSON object: " + text);
        const Json::Value &last = packets.back();
        ended = IsFailure(last) || IsEnd(last) || (packets.size() == 1 && IsDocument(last));
    }
    if (packets.empty()) return outcome;  // closed without a word
    const Json::Value &first = packets.front(), &last = packets.back();
    if (packets.size() > 1) {
        if (first.size() != 1 || !first["total"].isUInt64())
            return fault(Outcome::kMalformed, "not a header: " + zarn::json::ToString(first));
        for (size_t i = 1; i + 1 < packets.size(); ++i)
            if (!packets[i]["additional"]["doc_id"].isUInt())
                return fault(Outcome::kMalformed, "not a hit: " + zarn::json::ToString(packets[i]));
        outcome.hits = packets.size() - 2;
    } else if (IsEnd(first)) {
        return fault(Outcome::kMalformed, "an end without a header");
    }
    outcome.kind = IsFailure(last) ? Outcome::kFailure : Outcome::kOk;
    if (IsFailure(last)) {
        outcome.code = last["error"]["code"].asInt();
        outcome.detail = last["error"]["message"].asString();
    }
    return outcome;
}

std::string Framed(const std::string &text) {
    const uint32_t n = static_cast<uint32_t>(text.size());
    const char header[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                            static_cast<char>(n)};
    return std::string(header, 4) + text;
}

bool SendAll(int fd, const std::string &bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Sends raw bytes (then says it has no more), reads the reply.
Outcome Exchange(const std::string &bytes, int hang_limit_ms) {
    const int fd = Connect(hang_limit_ms);
    if (fd < 0) return {Outcome::kNoConnection, 0, 0, ""};
    SendAll(fd, bytes);  // a refused request may be cut off mid-write
    shutdown(fd, SHUT_WR);
    Outcome outcome = ReadReply(fd);
    close(fd);
    return outcome;
}

Json::Value SearchRequest(const std::string &query, uint32_t size) {
    Json::Value request;
    request["command"] = "search";
    Json::Value &data = request["data"];
    data["indice"].append("fileindex_" + share);
    data["query_string"]["query"] = query;
    data["size"] = size;
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = my_uid;
    data["collector"]["agent"] = "abuse";
    data["collector"]["uid"] = my_uid;
    return request;
}

std::string Text(const Json::Value &value) { return zarn::json::ToString(value); }

// Counts of outcomes by kind and by failure code, shared by threads.
struct Tally {
    std::mutex mutex;
    std::map<std::string, uint64_t> counts;
    std::string first_fault;

    void Add(const Outcome &outcome, const std::string &request = "") {
        std::lock_guard<std::mutex> lock(mutex);
        ++counts[KindName(outcome.kind)];
        if (outcome.kind == Outcome::kFailure) ++counts["code_" + std::to_string(outcome.code)];
        if (outcome.kind == Outcome::kFailure && outcome.detail == "search took too long") ++counts["too_long"];
        if (outcome.kind == Outcome::kMalformed || outcome.kind == Outcome::kHang || outcome.kind == Outcome::kCut)
            if (first_fault.empty()) first_fault = std::string(KindName(outcome.kind)) + " " + outcome.detail + " for " +
                                                   request.substr(0, 300);
    }
    void Count(const std::string &name) {
        std::lock_guard<std::mutex> lock(mutex);
        ++counts[name];
    }
    Json::Value Report() {
        std::lock_guard<std::mutex> lock(mutex);
        Json::Value report(Json::objectValue);
        for (const auto &count : counts) report[count.first] = Json::UInt64(count.second);
        if (!first_fault.empty()) report["first_fault"] = first_fault;
        return report;
    }
};

// --- flood ---------------------------------------------------------------

constexpr int kFloodHangMs = 30000;  // a reply is due well before: queue wait + budget

// Half a request, or a request whose large reply is left unread: the
// connection is held until the flood ends, unless the daemon refuses it at
// once (a failure) or gives up on it (closed).
void HoldConnection(const std::string &bytes, Clock::time_point end, Tally *tally) {
    const int fd = Connect(kFloodHangMs);
    if (fd < 0) {
        tally->Count("no_connection");
        usleep(5000);
        return;
    }
    SendAll(fd, bytes);
    pollfd polled = {fd, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (poll(&polled, 1, static_cast<int>(std::max<long long>(0, left) + 1)) == 1) {
        std::string text;
        Json::Value first;
        if (!zarndaemon::io::PacketRead(fd, text)) {
            tally->Count("held_then_closed_by_daemon");
        } else if (zarn::json::FromString(text, &first) && IsFailure(first)) {
            tally->Add({Outcome::kFailure, first["error"]["code"].asInt(), 0, ""});
            usleep(5000);
        } else {
            tally->Count("unread_reply_started");  // the rest stays unread
            std::this_thread::sleep_until(end);
        }
    } else {
        tally->Count("held_to_the_end");
    }
    close(fd);
}

void FloodThread(int kind, Clock::time_point end, Tally *tally) {
    Json::Value sorted = SearchRequest("*", 10000);
    sorted["data"]["sorter"][0]["field"] = "ZARNMDPath";
    for (const char *field : {"ZARNMDPath", "ZARNMDFSName", "ZARNMDTextContent", "ZARNMDFSSize"})
        sorted["data"]["fields"].append(field);
    Json::Value wild = SearchRequest("a* OR b* OR c* OR d* OR e* OR f* OR l* OR m* OR n* OR s* OR t* OR *", 1000);
    wild["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
    wild["data"]["sorter"][0] = Json::Value(Json::objectValue);
    wild["data"]["sorter"][0]["field"] = "ZARNMDFSName";
    wild["data"]["sorter"][0]["nature_sort"] = true;
    Json::Value deep = SearchRequest("*", 10000);
    deep["data"]["from"] = 90000;
    deep["data"]["sorter"][0]["field"] = "ZARNMDPath";
    deep["data"]["sorter"][0]["direction"] = "desc";
    Json::Value unread = sorted;
    unread["data"]["highlight"] = wild["data"]["highlight"];
    Json::Value over = SearchRequest("*", 20000);
    const std::string requests[] = {Text(sorted), Text(wild), Text(deep), "", Text(unread), Text(over)};
    while (Clock::now() < end) {
        if (kind == 3 || kind == 4) {
            HoldConnection(kind == 3 ? Framed(std::string(1000, ' ')).substr(0, 10) : Framed(requests[4]), end, tally);
            continue;
        }
        const Outcome outcome = Exchange(Framed(requests[kind]), kFloodHangMs);
        tally->Add(outcome, requests[kind]);
        if (outcome.kind != Outcome::kOk) usleep(5000);  // refused: a short pause, the machine is shared
    }
}

int Flood(double seconds, int connections, const std::string &kinds) {
    Tally tally;
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    std::vector<std::thread> threads;
    for (int i = 0; i < connections; ++i)
        threads.emplace_back(FloodThread, (kinds[i % kinds.size()] - '0') % 6, end, &tally);
    for (std::thread &thread : threads) thread.join();
    Json::Value report = tally.Report();
    report["role"] = "flood";
    report["overrun_ms"] = Json::Int64(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - end).count());
    std::printf("%s\n", Text(report).c_str());
    return 0;
}

// --- ordinary searches ---------------------------------------------------

int Search(int count, double seconds, int hang_limit_ms) {
    const char *const queries[] = {"*", "fox OR copyright", "ZARNMDExtension:txt", "li*"};
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    Tally tally;
    std::vector<double> millis;
    for (int i = 0; i < count && Clock::now() < end; ++i) {
        Json::Value request = SearchRequest(queries[i % 4], 20);
        if (i % 2 == 0) request["data"]["sorter"][0]["field"] = "ZARNMDFSName";
        const Clock::time_point start = Clock::now();
        const Outcome outcome = Exchange(Framed(Text(request)), hang_limit_ms);
        millis.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        tally.Add(outcome, Text(request));
    }
    std::sort(millis.begin(), millis.end());
    const auto at = [&](double p) { return millis.empty() ? 0 : millis[std::min(millis.size() - 1, size_t(p * millis.size()))]; };
    Json::Value report = tally.Report();
    report["role"] = "search";
    report["searches"] = static_cast<int>(millis.size());
    report["p50_ms"] = at(0.50);
    report["p99_ms"] = at(0.99);
    report["max_ms"] = millis.empty() ? 0 : millis.back();
    std::printf("%s\n", Text(report).c_str());
    return 0;
}

// --- random and mutated requests -----------------------------------------

constexpr int kMutateHangMs = 20000;

std::vector<std::string> Seeds() {
    Json::Value full = SearchRequest("fox AND (quick OR \"lazy dog\") ZARNMDFSSize:1..100000 rep*", 5);
    full["data"]["from"] = 1;
    full["data"]["fields"].append("ZARNMDPath");
    full["data"]["sorter"][0]["field"] = "ZARNMDFSSize";
    full["data"]["sorter"][0]["direction"] = "desc";
    full["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
    full["data"]["highlight"][0]["frag_length"] = 40;
    Json::Value document;
    document["command"] = "document_get_by_internal_id";
    document["data"]["id"] = "fileindex_" + share;
    document["data"]["doc_id"] = 3;
    return {Text(full), Text(SearchRequest("*", 3)), Text(document), Text(SearchRequest("ZARNMDExtension:txt", 2))};
}

// One request of a random kind: framed or not, whole or lying about its length.
std::string Mutant(std::mt19937 &random, const std::vector<std::string> &seeds) {
    const auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
    std::string text = seeds[pick(seeds.size())];
    switch (pick(8)) {
    case 0:  // random bytes
        text.assign(pick(300), '\0');
        for (char &c : text) c = static_cast<char>(pick(256));
        break;
    case 1:  // nested deep
        text = std::string(pick(100000), "[{"[pick(2)]);
        break;
    case 2:  // a member's value swapped for another type or number
        {
            const char *values[] = {"-1", "1e400", "4294967296", "null", "[]", "{}", "\"\"", "true", "-0", "0.5"};
            const size_t colon = text.find(':', pick(text.size()));
            if (colon != std::string::npos) text.insert(colon + 1, std::string(values[pick(10)]) + ",\"x\":");
        }
        break;
    default:  // a few bytes flipped, dropped or doubled
        for (size_t n = 1 + pick(4); n > 0 && !text.empty(); --n) {
            const size_t at = pick(text.size());
            const size_t how = pick(3);
            if (how == 0) text[at] = static_cast<char>(pick(256));
            else if (how == 1) text.erase(at, 1 + pick(8));
            else text.insert(at, text.substr(at, 1 + pick(16)));
        }
    }
    std::string bytes = Framed(text);
    switch (pick(10)) {
    case 0:  // longer than announced: the rest is never read
        bytes += "garbage";
        break;
    case 1:  // shorter than announced
        bytes.resize(bytes.size() - std::min(bytes.size(), 1 + pick(8)));
        break;
    case 2:  // a length above the cap
        bytes = std::string("\x7f\xff\xff\xff", 4) + text;
        break;
    default:
        break;
    }
    return bytes;
}

int Mutate(int count, double seconds, unsigned seed) {
    const std::vector<std::string> seeds = Seeds();
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    Tally tally;
    std::atomic<int> next{0}, sent{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(seed * 4 + t);
            while (next++ < count && Clock::now() < end) {
                const std::string bytes = Mutant(random, seeds);
                tally.Add(Exchange(bytes, kMutateHangMs), bytes.substr(std::min<size_t>(4, bytes.size())));
                ++sent;
            }
        });
    for (std::thread &thread : threads) thread.join();
    Json::Value report = tally.Report();
    report["role"] = "mutate";
    report["sent"] = sent.load();
    std::printf("%s\n", Text(report).c_str());
    return 0;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: zarnelasticd_abuse [--as UID] flood SHARE SECONDS CONNECTIONS [KINDS]\n"
                 "       zarnelasticd_abuse [--as UID] search SHARE COUNT [SECONDS]\n"
                 "       zarnelasticd_abuse [--as UID] mutate SHARE COUNT SECONDS [SEED]\n");
    return 2;
}

// Becomes `uid` (groups too), before any thread starts.
bool BecomeUser(uid_t uid) {
    return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    int at = 1;
    if (argc > 2 && std::strcmp(argv[1], "--as") == 0) {
        if (!BecomeUser(static_cast<uid_t>(std::atoi(argv[2])))) {
            std::perror("zarnelasticd_abuse: cannot switch user");
            return 2;
        }
        at = 3;
    }
    my_uid = getuid();
    if (argc - at < 3) return Usage();
    const std::string role = argv[at];
    share = argv[at + 1];
    if (role == "flood" && argc - at >= 4 && argc - at <= 5)
        return Flood(std::atof(argv[at + 2]), std::atoi(argv[at + 3]), argc - at == 5 ? argv[at + 4] : "012345");
    if (role == "search" && argc - at >= 3 && argc - at <= 4)
        return Search(std::atoi(argv[at + 2]), argc - at == 4 ? std::atof(argv[at + 3]) : 1e6, 10000);
    if (role == "mutate" && argc - at >= 4 && argc - at <= 5)
        return Mutate(std::atoi(argv[at + 2]), std::atof(argv[at + 3]),
                      argc - at == 5 ? static_cast<unsigned>(std::atoi(argv[at + 4])) : 1);
    return Usage();
}
