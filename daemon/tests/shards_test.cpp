// A share indexed into one local database, and a copy of it spread over
// three shards, each with a replica made by Xapian's replication, every
// copy served by its own xapian-tcpsrv on the loopback: every search must
// answer alike from either copy, a copy that fails must leave searches to
// the other, a shard whose copies all fail must fail searches with 503
// until one is back, and a re-index must keep each document in its shard.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include <xapian.h>

#include "daemon_client.h"
#include "harness.h"
#include "schema.h"
#include "xapian_layout.h"
#include "zarnsearch_run.h"

namespace {

using namespace zarntest;
constexpr unsigned kStranger = 54321;
constexpr int kShards = 3;
constexpr int kCopies = 2;  // a primary, written by the indexer, and its replica
using Clock = std::chrono::steady_clock;

bool Answers(unsigned port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool answered = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return answered;
}

// A process group of its own, so that its children go with it.
pid_t Spawn(const std::string &command) {
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

void Reap(pid_t pid, int signal_number) {
    if (pid <= 0) return;
    kill(-pid, signal_number);
    waitpid(pid, nullptr, 0);
}

// Where a document must live, worked out here from what the index promises
// (a 64-bit FNV-1a hash of the path, modulo the shard count), not by the
// daemon's own function: a change of either breaks indexes already built.
size_t PlacedShard(const std::string &path) {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (const char c : path) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ull;
    return static_cast<size_t>(hash % kShards);
}

// The documents' words are chosen so that relevance never ties for "fox"
// (file i holds it i+1 times, every text as long as the others), and each
// file name is unique.
constexpr char kMakeShare[] = R"sh(umask 022 && mkdir -p /var/local/d0 /var/local/d1 /var/local/d2 && chmod 750 /var/local/d2 &&
  for i in $(seq 0 59); do
    f=/var/local/d$((i % 3))/f$(printf %02d $i).txt words="" k=0
    while [ $k -le $i ]; do words="$words fox"; k=$((k + 1)); done
    if [ $((i % 4)) = 0 ]; then words="$words alpha"; else words="$words beta"; fi
    if [ $((i % 5)) = 0 ]; then words="$words brown dog"; else words="$words green cat"; fi
    while [ $k -lt 100 ]; do words="$words w$k"; k=$((k + 1)); done
    echo "$words" > $f
    if [ $((i % 7)) = 0 ]; then chmod 600 $f; fi
  done && cp -a /var/local /var/sharded)sh";

class ShardedIndex : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, Shell(kMakeShare).status);
        SetShareTable({{"local", "/var/local"}, {"sharded", "/var/sharded"}});
        WriteFile(kFolderConfig, R"([{"path": "/local"}, {"path": "/sharded"}])");
        std::string list;
        ASSERT_EQ(0, mkdir("/var/primary", 0755));
        for (int k = 0; k < kShards; ++k) {
            for (unsigned &port : ports_[k]) port = FreePort();
            StartCopy(k, 0);
            list += (k ? "," : "") + Name(k, 0) + "+" + Name(k, 1);
        }
        ASSERT_EQ(0, Shell(ZARNELASTICD " index --share local").status);
        const Result sharded = Shell(ZARNELASTICD " index --share sharded --shards " + list);
        ASSERT_EQ(0, sharded.status) << sharded.err;
        // One replication server for every primary; each replica pulls once.
        replication_port_ = FreePort();
        replication_ = Spawn("xapian-replicate-server --interface 127.0.0.1 --port " + std::to_string(replication_port_) +
                             " /var/primary");
        for (int i = 0; i < 1000 && !Answers(replication_port_); ++i) usleep(10000);
        for (int k = 0; k < kShards; ++k) {
            const Result pulled = Shell("xapian-replicate --quiet --one-shot --host 127.0.0.1 --port " +
                                        std::to_string(replication_port_) + " --master shard" + std::to_string(k) +
                                        " /var/replica" + std::to_string(k));
            ASSERT_EQ(0, pulled.status) << pulled.err;
            StartCopy(k, 1);
        }
    }

    void TearDown() override {
        if (daemon_ > 0) {
            kill(daemon_, SIGTERM);
            int status = 0;
            EXPECT_EQ(daemon_, waitpid(daemon_, &status, 0));
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Shell("cat /var/daemon.log").out;
        }
        for (auto &copies : servers_)
            for (pid_t server : copies)
                if (server > 0) Reap(server, SIGKILL);
        if (replication_ > 0) Reap(replication_, SIGKILL);
    }

    std::string Name(int k, int copy) const { return "127.0.0.1:" + std::to_string(ports_[k][copy]); }

    // Copy 0 of shard k is its primary, written through it; copy 1 its
    // replica, only read.
    void StartCopy(int k, int copy) {
        const std::string kind = copy == 0 ? "--writable " : "";
        const std::string database = copy == 0 ? "/var/primary/shard" : "/var/replica";
        servers_[k][copy] = Spawn("xapian-tcpsrv " + kind + "--quiet --interface 127.0.0.1 --port " +
                                  std::to_string(ports_[k][copy]) + " " + database + std::to_string(k) +
                                  " 2>>/var/shards.log");
        for (int i = 0; i < 1000 && !Answers(ports_[k][copy]); ++i) usleep(10000);
        ASSERT_TRUE(Answers(ports_[k][copy]));
    }

    void StopCopy(int k, int copy) {
        Reap(servers_[k][copy], SIGKILL);
        servers_[k][copy] = -1;
    }

    // Waits for the line that the daemon logs once its socket takes
    // connections.  The time-out is short only where failing over is the
    // point: elsewhere a loaded machine must not turn a slow shard into a 503.
    void StartDaemon(int shard_timeout_s = 30) {
        daemon_ = Spawn(ZARNELASTICD " --foreground --shard-timeout " + std::to_string(shard_timeout_s) +
                        " 2>>/var/daemon.log");
        for (int status = 0; Shell("grep -q 'listening on' /var/daemon.log").status != 0; usleep(10000)) {
            if (waitpid(daemon_, &status, WNOHANG) == daemon_) {
                daemon_ = -1;
                FAIL() << "the daemon ended (status " << status << ") before it listened\n" << Shell("cat /var/daemon.log").out;
            }
        }
    }

    unsigned ports_[kShards][kCopies] = {};
    pid_t servers_[kShards][kCopies] = {};
    unsigned replication_port_ = 0;
    pid_t replication_ = -1;
    pid_t daemon_ = -1;
};

struct Sort {
    const char *field;
    bool descending, natural;
};

struct Case {
    const char *query;  // "{share}" stands for the share's name
    std::vector<Sort> sort;
    unsigned from, size;
    bool ordered;  // hits in one order (relevance ties go by path); otherwise as a set
};

// What a search asks for: fields and a highlight read from each hit's
// document; only the fields that the library asks for by default, which
// hits carry in the match reply; those and more fields that the record
// carries, the match reply then carrying the records.
enum Asked { kRead, kDefault, kCarried };

Json::Value Request(const std::string &share, const Case &c, unsigned uid, Asked asked = kRead) {
    const bool carried = asked != kRead;
    Json::Value request;
    request["command"] = "search";
    Json::Value &data = request["data"];
    data["indice"][0] = "fileindex_" + share;
    std::string query = c.query;
    if (query.find("{share}") != std::string::npos) query.replace(query.find("{share}"), 7, share);
    data["query_string"]["query"] = query;
    data["from"] = c.from;
    data["size"] = c.size;
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = uid;
    for (const char *field : {"ZARNMDPath", "ZARNMDFSSize", "ZARNMDFSContentChangeDate", "ZARNMDTextContent"})
        if (!carried) data["fields"].append(field);
    for (const char *field : {"ZARNMDPath", "ZARNMDFSName", "ZARNMDExtension", "ZARNMDIsDir"})
        if (carried) data["fields"].append(field);
    for (const char *field : {"ZARNMDFSSize", "ZARNMDOwnerUserID"})
        if (asked == kCarried) data["fields"].append(field);
    for (const Sort &key : c.sort) {
        // Ties on the keys are compared in one order (Answer).
        if (carried) data["fields"].append(key.field);
        Json::Value entry;
        entry["field"] = key.field;
        entry["direction"] = key.descending ? "desc" : "asc";
        entry["nature_sort"] = key.natural;
        data["sorter"].append(entry);
    }
    if (carried) return request;
    data["highlight"][0]["field"] = "ZARNMDTextContent";
    data["highlight"][0]["frag_length"] = 40;
    return request;
}

// A hit as text, the share's name taken out of it and its id left out.
std::string Comparable(Json::Value hit, const std::string &share) {
    if (hit.isObject()) hit.removeMember("additional");
    std::string text = zarn::json::ToString(hit);
    for (size_t at; (at = text.find("/" + share)) != std::string::npos;) text.replace(at, share.size() + 1, "/S");
    return text;
}

// The hits in order; where they tie on their sort keys, in one fixed order.
std::vector<std::string> Answer(const std::string &share, const Case &c, unsigned uid, Asked asked, int64_t *total) {
    std::vector<std::pair<std::string, std::string>> hits;  // sort values, hit
    for (const Json::Value &hit : Hits(Request(share, c, uid, asked), total)) {
        std::string values;
        for (const Sort &key : c.sort) values += zarn::json::ToString(hit[key.field]) + "|";
        hits.emplace_back(values, Comparable(hit, share));
    }
    if (!c.ordered) std::sort(hits.begin(), hits.end());
    for (size_t begin = 0, end; begin < hits.size(); begin = end) {
        for (end = begin; end < hits.size() && hits[end].first == hits[begin].first;) ++end;
        if (!c.sort.empty()) std::sort(hits.begin() + begin, hits.begin() + end);
    }
    std::vector<std::string> texts;
    for (const auto &hit : hits) texts.push_back(hit.second);
    return texts;
}

TEST_F(ShardedIndex, AnswersAsOneLocalDatabase) {
    StartDaemon();
    const Case cases[] = {
        {"fox", {}, 0, 100, true},
        {"fox", {}, 7, 5, true},  // pages across the shards' documents
        {"fox", {}, 20, 13, true},
        {"\"brown dog\"", {}, 0, 100, true},
        {"alpha AND fox NOT w50", {}, 0, 100, true},
        {"ZARNMDFSSize:300..420 ZARNMDExtension:txt", {}, 0, 100, true},
        {"ZARNMDParent:/{share}/d1", {}, 0, 100, true},
        // A wildcard's weights differ between one database and several.
        {"f1*", {}, 0, 100, false},
        {"*", {{"ZARNMDPath", false, false}}, 10, 25, true},
        {"*", {{"ZARNMDPath", true, true}}, 0, 100, true},
        {"fox", {{"ZARNMDFSName", true, true}}, 3, 40, true},
        {"fox", {{"ZARNMDFSSize", false, false}}, 0, 100, true},
        {"*", {{"ZARNMDFSContentChangeDate", true, false}}, 0, 100, true},
        {"beta", {{"ZARNMDSearchFileName", false, true}}, 0, 100, true},
        // Several keys, pages that end inside a run of hits tied on the first
        // (but not on all: the engine orders full ties by id, which differ).
        {"fox", {{"ZARNMDFSSize", false, false}, {"ZARNMDPath", true, false}}, 0, 100, true},
        {"*", {{"ZARNMDIsDir", true, false}, {"ZARNMDFSName", false, true}}, 5, 20, true},
        {"*", {{"ZARNMDExtension", false, false}, {"ZARNMDFSSize", true, false}, {"ZARNMDPath", false, true}}, 30, 10, true},
        {"green OR brown", {{"ZARNMDParent", true, false}, {"ZARNMDFSSize", false, false}, {"ZARNMDPath", false, false}}, 12, 9, true},
    };
    // From the primaries, then, every primary gone, from the replicas (as
    // root only: the replicas hold the same restriction terms).
    for (const char *copies : {"primaries", "replicas"}) {
        const bool replicas = copies == std::string("replicas");
        const std::vector<unsigned> uids = replicas ? std::vector<unsigned>{0u} : std::vector<unsigned>{0u, kStranger};
        for (const Case &c : cases)
            for (unsigned uid : uids)
                for (Asked asked : {kRead, kDefault, kCarried}) {
                    int64_t local_total = -1, sharded_total = -2;
                    const auto local = Answer("local", c, uid, asked, &local_total);
                    EXPECT_FALSE(local.empty()) << c.query;
                    EXPECT_EQ(local, Answer("sharded", c, uid, asked, &sharded_total))
                        << c.query << " from " << c.from << " as " << uid << ", fields asked: " << asked
                        << " from the " << copies;
                    EXPECT_EQ(local_total, sharded_total) << c.query << " as " << uid;
                }
        if (!replicas)
            for (int k = 0; k < kShards; ++k) StopCopy(k, 0);
    }
    // Every document found by its id, as it was found by the search.
    std::map<std::string, std::string> found;
    for (const std::string share : {"local", "sharded"}) {
        for (const Json::Value &hit : Hits(Request(share, {"*", {{"ZARNMDPath", false, false}}, 0, 200, true}, 0))) {
            const std::string ask = R"({"command": "document_get_by_internal_id", "data": {"id": "fileindex_)" + share +
                                    R"(", "doc_id": )" + std::to_string(hit["additional"]["doc_id"].asInt()) + "}}";
            Json::Value fields = Ask(ask).at(0)["data"];
            EXPECT_EQ(hit["ZARNMDPath"], fields["ZARNMDPath"]);
            // A copy has its own creation and attribute change times.
            fields.removeMember("ZARNMDFSCreationDate");
            fields.removeMember("ZARNMDAttributeChangeDate");
            std::string &text = found[Comparable(hit["ZARNMDPath"], share)];
            if (text.empty()) text = Comparable(fields, share);
            else EXPECT_EQ(text, Comparable(fields, share));
        }
    }
    EXPECT_EQ(63u, found.size());  // 60 files and 3 folders
    // The command-line client over the library.
    const Result cli = Zarnsearch({"count", "sharded", "fox"});
    EXPECT_EQ(0, cli.status) << cli.err;
    EXPECT_NE(std::string::npos, cli.out.find("60")) << cli.out;
}

// The reply that a search of the sharded index gets, and how long it took.
Replies TimedSearch(double *seconds) {
    const Clock::time_point start = Clock::now();
    const Replies replies = Ask(zarn::json::ToString(Request("sharded", {"fox", {}, 0, 5, true}, 0)));
    *seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return replies;
}

// The 95th to 99th percentile of `seconds`.
double P99(std::vector<double> seconds) {
    std::sort(seconds.begin(), seconds.end());
    return seconds.empty() ? 0 : seconds[std::min(seconds.size() - 1, seconds.size() * 99 / 100)];
}

TEST_F(ShardedIndex, ACopyServesWhileAnotherIsDownOrStuckAndA503NamesAShardWithNone) {
    StartDaemon(1);
    double seconds = 0;
    const Replies expected = TimedSearch(&seconds);
    ASSERT_EQ(7u, expected.size());  // header, 5 hits, end
    // Clients search while one primary dies (its connections refused) and
    // another hangs (its connections open, answering nothing).
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<double> during;
    size_t wrong = 0;
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c)
        clients.emplace_back([&] {
            while (!stop) {
                double took = 0;
                const Replies replies = TimedSearch(&took);
                std::lock_guard<std::mutex> lock(mutex);
                during.push_back(took);
                if (replies != expected && wrong++ == 0)
                    ADD_FAILURE() << zarn::json::ToString(Json::Value(replies.size())) << " replies, the last "
                                  << zarn::json::ToString(replies.empty() ? Json::Value() : replies.back()) << " after "
                                  << took << " s";
            }
        });
    usleep(300000);
    kill(-servers_[1][0], SIGKILL);
    usleep(700000);
    kill(-servers_[2][0], SIGSTOP);
    usleep(2500000);  // beyond the time-out: every worker has met the hang
    stop = true;
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0u, wrong) << "of " << during.size() << " searches";
    std::printf("%zu searches while copies failed: p99 %.3f s, max %.3f s (shard time-out 1 s)\n", during.size(),
                P99(during), *std::max_element(during.begin(), during.end()));
    EXPECT_LT(*std::max_element(during.begin(), during.end()), 4.0);  // one time-out, once, and slack for a loaded machine
    const std::string log = Shell("cat /var/daemon.log").out;
    for (int k : {1, 2}) EXPECT_NE(std::string::npos, log.find("served by its copy " + Name(k, 1))) << log;
    // Shard 1 with no copy left: its replica hangs, then dies, its primary
    // is gone; each search gets one 503 naming the shard and its copies,
    // within about one time-out, until a copy is back.
    const std::string shard = Name(1, 0) + "+" + Name(1, 1);
    for (int signal_number : {SIGSTOP, SIGKILL}) {
        kill(-servers_[1][1], signal_number);
        for (int round = 0; round < 2; ++round) {
            const Replies replies = TimedSearch(&seconds);
            ASSERT_EQ(1u, replies.size());
            EXPECT_EQ(503, replies[0]["error"]["code"].asInt());
            EXPECT_NE(std::string::npos, replies[0]["error"]["message"].asString().find("shard " + shard))
                << zarn::json::ToString(replies[0]);
            EXPECT_LT(seconds, 4.0);
        }
        if (signal_number == SIGSTOP) {
            kill(-servers_[1][1], SIGCONT);
            EXPECT_EQ(expected, TimedSearch(&seconds));
        }
    }
    waitpid(servers_[1][0], nullptr, 0);
    StartCopy(1, 0);
    EXPECT_EQ(expected, TimedSearch(&seconds));
}

// A run and the daemon's live indexing both put each document in its shard.
TEST_F(ShardedIndex, ChangesKeepEveryDocumentInItsShardOnce) {
    ASSERT_EQ(0, Shell("cd /var/sharded && echo quokka >> d1/f04.txt && rm d0/f06.txt && echo zebra > d2/new.txt && "
                       "mv d1/f07.txt d1/g07.txt").status);
    const Result rerun = Shell(ZARNELASTICD " index --share sharded");  // the layout is remembered
    ASSERT_EQ(0, rerun.status) << rerun.err;
    EXPECT_NE(std::string::npos, rerun.out.find("2 added, 4 updated, 2 removed")) << rerun.out;
    StartDaemon();
    ASSERT_EQ(0, Shell("echo yak > /var/sharded/d0/live.txt && rm /var/sharded/d2/f05.txt").status);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);  // a guard against a hang, not a bound under test
    const auto settled = [] {
        const Replies hits = Hits(Request("sharded", {"yak OR f05", {}, 0, 10, true}, 0));
        return hits.size() == 1 && hits[0]["ZARNMDPath"] == "/sharded/d0/live.txt";
    };
    while (!settled() && Clock::now() < deadline) usleep(20000);
    std::multiset<std::string> paths;
    for (int k = 0; k < kShards; ++k) {
        Xapian::Database shard = Xapian::Remote::open("127.0.0.1", ports_[k][0]);
        const Xapian::valueno slot = zarnd::xap::FindLayout(zarnd::field::kPath)->slot;
        size_t held = 0;
        for (Xapian::ValueIterator it = shard.valuestream_begin(slot); it != shard.valuestream_end(slot); ++it, ++held) {
            paths.insert(*it);
            EXPECT_EQ(static_cast<size_t>(k), PlacedShard(*it)) << *it;
        }
        // 63 documents over 3 shards by a hash: each gets a fair part.
        EXPECT_GE(held, 12u) << "shard " << k;
    }
    EXPECT_EQ(63u, paths.size());
    for (const char *path : {"/sharded/d2/new.txt", "/sharded/d1/g07.txt", "/sharded/d1/f04.txt", "/sharded/d0/live.txt"})
        EXPECT_EQ(1u, paths.count(path)) << path;
    for (const char *path : {"/sharded/d0/f06.txt", "/sharded/d1/f07.txt", "/sharded/d2/f05.txt"})
        EXPECT_EQ(0u, paths.count(path)) << path;
    for (const char *word : {"quokka", "zebra", "yak"}) EXPECT_EQ(1u, Hits(Request("sharded", {word, {}, 0, 10, true}, 0)).size());
}

}  // namespace
