#include "xapian_shards.h"

#include <errno.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>

#include "engine.h"
#include "failure.h"
#include "log.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {
using Clock = std::chrono::steady_clock;
// A copy that failed this recently is tried after the others.
constexpr Clock::duration kDownFor = std::chrono::seconds(kBackToFirstCopyS);

// When each copy that failed did so last, for every search thread.
std::mutex failures_mutex;
std::map<std::string, Clock::time_point> failures;

bool FailedLately(const std::string &name) {
    std::lock_guard<std::mutex> lock(failures_mutex);
    const auto failure = failures.find(name);
    return failure != failures.end() && Clock::now() - failure->second < kDownFor;
}

// The stub line of one copy, and the mark before a copy's line: Xapian
// reads it as a comment, and opens the stub's first copies only.
std::string StubLine(const Shard &shard) { return (shard.remote() ? "remote :" : "auto ") + shard.Name() + "\n"; }
constexpr char kCopyMark[] = "# copy ";
}  // namespace

namespace {

constexpr unsigned kWriteTimeoutMs = 120000;

bool ParsePort(const std::string &text, unsigned *port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *port = static_cast<unsigned>(std::stoul(text));
    return *port >= 1 && *port <= 65535;
}

bool ParseCopy(const std::string &text, Shard *shard) {
    *shard = Shard();
    if (!text.empty() && text[0] == '/') {
        shard->path = text;
        return text.find('\n') == std::string::npos;
    }
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    shard->host = text.substr(0, colon);
    if (shard->host.find_first_of(" \t\n:/") != std::string::npos) return false;
    return ParsePort(text.substr(colon + 1), &shard->port);
}

// One line of a stub: "remote :HOST:PORT", or "auto PATH" / "glass PATH"
// for a local database (relative to the stub's directory).
bool ParseStubLine(const std::string &dir, const std::string &line, Shard *shard) {
    const size_t space = line.find(' ');
    if (space == std::string::npos) return false;
    const std::string kind = line.substr(0, space), rest = line.substr(space + 1);
    if (kind == "remote") return rest.size() > 1 && rest[0] == ':' && ParseCopy(rest.substr(1), shard);
    if ((kind != "auto" && kind != "glass") || rest.empty()) return false;
    *shard = Shard();
    shard->path = rest[0] == '/' ? rest : dir + "/" + rest;
    return true;
}

}  // namespace

std::string Shard::Name() const { return remote() ? host + ":" + std::to_string(port) : path; }

std::string Shard::ListName() const {
    std::string name = Name();
    for (const Shard &copy : copies) name += "+" + copy.Name();
    return name;
}

bool ParseShard(const std::string &text, Shard *shard) {
    const size_t plus = text.find('+');
    if (!ParseCopy(text.substr(0, plus), shard)) return false;
    for (size_t at = plus; at != std::string::npos;) {
        const size_t next = text.find('+', at + 1);
        Shard copy;
        if (!ParseCopy(text.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1), &copy))
            return false;
        shard->copies.push_back(copy);
        at = next;
    }
    return true;
}

bool ReadShards(const std::string &dir, std::vector<Shard> *shards) {
    shards->clear();
    std::ifstream stub(dir + "/" + kStubFile);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stub, line);)
        if (!line.empty()) lines.push_back(line);
    unsigned generation = 0;
    char end = 0;
    // One generation of a single local index: the writer's own stub.
    if (lines.empty() || (lines.size() == 1 && std::sscanf(lines[0].c_str(), "glass gen-%u%c", &generation, &end) == 1))
        return false;
    for (const std::string &line : lines) {
        const bool copy = line.compare(0, std::strlen(kCopyMark), kCopyMark) == 0;
        if (!copy && line[0] == '#') continue;
        Shard shard;
        if (!ParseStubLine(dir, copy ? line.substr(std::strlen(kCopyMark)) : line, &shard) || (copy && shards->empty()))
            throw Failure(kInternal, "cannot read the shard list " + dir + "/" + kStubFile + ": " + line);
        if (copy)
            shards->back().copies.push_back(shard);
        else
            shards->push_back(shard);
    }
    return true;
}

void WriteStub(const std::string &dir, const std::string &content) {
    const std::string stub = dir + "/" + kStubFile, fresh = stub + ".new";
    std::FILE *out = std::fopen(fresh.c_str(), "we");
    const bool written = out != nullptr && std::fputs(content.c_str(), out) >= 0;
    if (out != nullptr && std::fclose(out) != 0)
        throw Failure(kInternal, "cannot write " + fresh + ": " + std::strerror(errno));
    if (!written || std::rename(fresh.c_str(), stub.c_str()) != 0)
        throw Failure(kInternal, "cannot write " + stub + ": " + std::strerror(errno));
}

void WriteShards(const std::string &dir, const std::vector<Shard> &shards) {
    std::string content;
    for (const Shard &shard : shards) {
        content += StubLine(shard);
        for (const Shard &copy : shard.copies) content += kCopyMark + StubLine(copy);
    }
    WriteStub(dir, content);
}

Xapian::Database OpenShard(const Shard &shard, unsigned timeout_ms) {
    if (!shard.remote()) return Xapian::Database(shard.path);
    return Xapian::Remote::open(shard.host, shard.port, timeout_ms, timeout_ms);
}

Xapian::Database OpenShardCopy(const Shard &shard, unsigned timeout_ms, std::set<std::string> *failed,
                               std::string *served) {
    std::vector<const Shard *> order(1, &shard);
    for (const Shard &copy : shard.copies) order.push_back(&copy);
    std::stable_partition(order.begin(), order.end(), [](const Shard *copy) { return !FailedLately(copy->Name()); });
    std::string why = "no copy left to try";
    for (const Shard *copy : order) {
        if (failed->count(copy->Name()) != 0) continue;
        try {
            Xapian::Database db = OpenShard(*copy, timeout_ms);
            *served = copy->Name();
            if (copy != &shard)
                ZARN_LOG(LOG_NOTICE, "shard %s served by its copy %s", shard.Name().c_str(), copy->Name().c_str());
            return db;
        } catch (const Xapian::NetworkError &e) {
            failed->insert(copy->Name());
            NoteCopyFailed(copy->Name(), e.get_msg());
            why = e.get_msg();
        }
    }
    throw Failure(kBusy, "shard " + shard.ListName() + " is unavailable: " + why);
}

bool FailedSince(const std::vector<std::string> &names, Clock::time_point since) {
    std::lock_guard<std::mutex> lock(failures_mutex);
    return std::any_of(names.begin(), names.end(), [&](const std::string &name) {
        const auto failure = failures.find(name);
        return failure != failures.end() && failure->second > since;
    });
}

void NoteCopyFailed(const std::string &name, const std::string &why) {
    ZARN_LOG(LOG_WARNING, "shard copy %s failed: %s", name.c_str(), why.c_str());
    std::lock_guard<std::mutex> lock(failures_mutex);
    failures[name] = Clock::now();
}

Xapian::WritableDatabase OpenShardForWriting(const Shard &shard, unsigned timeout_ms) {
    if (!shard.remote()) return Xapian::WritableDatabase(shard.path, Xapian::DB_CREATE_OR_OPEN);
    return Xapian::Remote::open_writable(shard.host, shard.port, kWriteTimeoutMs, timeout_ms,
                                         Xapian::DB_CREATE_OR_OPEN);
}

size_t ShardOfPath(const std::string &path, size_t count) {
    return static_cast<size_t>(Fnv1a(path) % count);
}

Xapian::docid CombinedId(Xapian::docid local, size_t shard, size_t count) {
    return static_cast<Xapian::docid>((local - 1) * count + shard + 1);
}

void SplitId(Xapian::docid combined, size_t count, size_t *shard, Xapian::docid *local) {
    *shard = (combined - 1) % count;
    *local = static_cast<Xapian::docid>((combined - 1) / count + 1);
}

Xapian::docid MaxLocalId(size_t shard, size_t count) {
    return static_cast<Xapian::docid>((kMaxDocId - 1 - shard) / count + 1);
}

std::string ShardOfError(const Xapian::Error &error) {
    // The engine names a remote database "remote:tcp(HOST:PORT)".
    const std::string context = error.get_context(), head = "remote:tcp(";
    if (context.compare(0, head.size(), head) != 0 || context.back() != ')') return "";
    return context.substr(head.size(), context.size() - head.size() - 1);
}

std::string ShardMark(size_t shard, size_t count) {
    return std::to_string(shard + 1) + "/" + std::to_string(count);
}

}  // namespace xap

}  // namespace zarnd
