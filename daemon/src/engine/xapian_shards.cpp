#include "xapian_shards.h"

#include <errno.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "engine.h"
#include "failure.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

constexpr unsigned kWriteTimeoutMs = 120000;

bool ParsePort(const std::string &text, unsigned *port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *port = static_cast<unsigned>(std::stoul(text));
    return *port >= 1 && *port <= 65535;
}

// One line of a stub: "remote :HOST:PORT", or "auto PATH" / "glass PATH"
// for a local database (relative to the stub's directory).
bool ParseStubLine(const std::string &dir, const std::string &line, Shard *shard) {
    const size_t space = line.find(' ');
    if (space == std::string::npos) return false;
    const std::string kind = line.substr(0, space), rest = line.substr(space + 1);
    if (kind == "remote") return rest.size() > 1 && rest[0] == ':' && ParseShard(rest.substr(1), shard);
    if ((kind != "auto" && kind != "glass") || rest.empty()) return false;
    *shard = Shard();
    shard->path = rest[0] == '/' ? rest : dir + "/" + rest;
    return true;
}

}  // namespace

std::string Shard::Name() const { return remote() ? host + ":" + std::to_string(port) : path; }

bool ParseShard(const std::string &text, Shard *shard) {
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
        Shard shard;
        if (!ParseStubLine(dir, line, &shard)) throw Failure(kInternal, "cannot read the shard list " + dir + "/" + kStubFile + ": " + line);
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
    for (const Shard &shard : shards) content += (shard.remote() ? "remote :" : "auto ") + shard.Name() + "\n";
    WriteStub(dir, content);
}

Xapian::Database OpenShard(const Shard &shard, unsigned timeout_ms) {
    if (!shard.remote()) return Xapian::Database(shard.path);
    return Xapian::Remote::open(shard.host, shard.port, timeout_ms, timeout_ms);
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
