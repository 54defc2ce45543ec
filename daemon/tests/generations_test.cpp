// Searches while writers rewrite the index, and writers that die or meet a
// full disk at each step of a write: the index stays whole and searchable,
// and the next run repairs it, leaving nothing behind.
#include <dirent.h>
#include <sys/wait.h>

#include <atomic>
#include <set>
#include <thread>

#include <valgrind/valgrind.h>

#include "daemon_fixture.h"
#include "engine.h"
#include "share_index.h"

namespace {

using namespace zarntest;

const Names kFox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"};
constexpr int kChurnFiles = 40;  // of 55 records: each round changes more than a quarter

// Replaces the share's folder "churn" by kChurnFiles files holding `word`,
// in two renames, so that live indexing sees one burst.
void Churn(const std::string &word) {
    ASSERT_EQ(0, Shell("rm -rf /var/stage && mkdir /var/stage && cd /var/stage && for f in $(seq " +
                       std::to_string(kChurnFiles) + "); do echo " + word + " > " + word + "-$f.txt; done && "
                       "rm -rf /var/docs/churn && mv /var/stage /var/docs/churn").status);
}

std::string IndexDir() { return zarnd::IndexDirOfShare("docs"); }

// The exact number of documents that match `query`, read by the engine
// itself; -1 when the search fails.
int64_t Count(const std::string &query) {
    try {
        zarnd::SearchPlan plan;
        plan.query = query;
        std::vector<uint32_t> ids;
        return static_cast<int64_t>(zarnd::OpenSearchIndex(IndexDir())->PageIds(plan, &ids));
    } catch (const std::exception &e) {
        ADD_FAILURE() << "search for " << query << ": " << e.what();
        return -1;
    }
}

// What the index directory holds besides the stub, the lock and the
// generation that the stub names: what a dead writer left behind.
std::set<std::string> Leftovers() {
    std::set<std::string> names;
    std::string stub;
    std::ifstream(IndexDir() + "/XAPIANDB") >> stub >> stub;  // "glass gen-N"
    if (DIR *d = opendir(IndexDir().c_str())) {
        while (const dirent *entry = readdir(d)) names.insert(entry->d_name);
        closedir(d);
    }
    for (const std::string &kept : {std::string("."), std::string(".."), std::string("XAPIANDB"), stub,
                                    std::string("zarnelasticd.lock")})
        names.erase(kept);
    return names;
}

// Whether process `pid` holds a file of the index that was removed since.
bool HoldsRemovedFiles(pid_t pid) {
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    bool holds = false;
    if (DIR *d = opendir(fds.c_str())) {
        char target[4096];
        while (const dirent *entry = readdir(d)) {
            const ssize_t n = readlink((fds + "/" + entry->d_name).c_str(), target, sizeof target - 1);
            const std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
            holds = holds || (path.compare(0, IndexDir().size(), IndexDir()) == 0 && path.find(" (deleted)") != std::string::npos);
        }
        closedir(d);
    }
    return holds;
}

// Runs a program with each file opening slowed down: the steps between
// reading a stub and opening what it names, or between choosing a
// generation and opening it, take long enough for another writer to act.
// LeakSanitizer cannot work under a tracer; the other tests look for leaks.
const std::string kSlowOpens =
    "env ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=0 strace -f -qq -o /dev/null -e trace=openat -e inject=openat:delay_enter=2000";

// A thread spinning on every core while it lives: a machine this loaded
// stretches every window between two steps of a writer or a reader.
class BusyCores {
public:
    BusyCores() {
        // Valgrind runs one thread at a time: a spinning one would only
        // starve the others, and the serialising stretches the windows anyway.
        if (RUNNING_ON_VALGRIND) return;
        for (unsigned k = 0; k < std::max(1u, std::thread::hardware_concurrency()); ++k)
            threads_.emplace_back([this] {
                for (volatile unsigned long n = 0; !stop_; n = n + 1) {
                }
            });
    }
    ~BusyCores() {
        stop_ = true;
        for (std::thread &thread : threads_) thread.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

// Clients search through the library and look a document up, while batch
// runs and live changes in turn rewrite more than a quarter of the index, so
// that every round compacts it into a new generation and swaps the stub.
// Each answer must be whole: the exact total, the right paths, no error.
TEST_F(DaemonE2e, SearchesAnswerFromOneWholeIndexWhileWritersRewriteIt) {
    Start(kSlowOpens, "--workers 8");
    const int fox_id = Hits(Search("lazy")).at(0)["additional"]["doc_id"].asInt();
    const std::pair<const char *, Names> queries[] = {
        {"fox", kFox},
        {"ZARNMDExtension:log", {"/docs/logs/file1.log", "/docs/logs/file10.log", "/docs/logs/file100.log",
                                 "/docs/logs/file2.log", "/docs/logs/file20.log"}},
        {"needle", {"/docs/long.txt"}},
        {"zzz", {}}};
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, answers{0};
    std::vector<std::thread> clients;
    {
        BusyCores busy;
        for (size_t t = 0; t < 8; ++t)
            clients.emplace_back([&, t] {
                for (size_t i = t; !done; ++i, ++answers) {
                    const auto &query = queries[i % 4];
                    const Page page = LibrarySearch(query.first);
                    if (page.total != static_cast<int>(query.second.size()) || page.paths != query.second)
                        ADD_FAILURE() << query.first << ": " << page.total << " hits, " << ++wrong << " wrong so far";
                    const char *names[] = {"ZARNMDPath"};
                    ZARNQueryDocumentFieldValue value;
                    if (i % 3 == 0 && (ZARNQueryDocumentFieldGet("docs", fox_id, names, 1, &value) != 0 ||
                                       std::string(value.value.string_value) != "/docs/fox.txt"))
                        ADD_FAILURE() << "lookup of document " << fox_id << " failed: " << ++wrong << " wrong so far";
                }
            });
        for (int round = 0; round < 20; ++round) {
            const std::string word = "churn" + std::to_string(round);
            Churn(word);
            if (round % 2 == 0) {
                const Result run = Shell(kSlowOpens + " " ZARNELASTICD " index");
                EXPECT_EQ(0, run.status) << run.err;
            }
            // A live round ends when the live indexer has applied the burst.
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (LibrarySearch(word.c_str()).total != kChurnFiles && std::chrono::steady_clock::now() < deadline)
                usleep(20000);
            EXPECT_EQ(kChurnFiles, LibrarySearch(word.c_str()).total) << Log();
        }
        done = true;
        for (std::thread &client : clients) client.join();
    }
    EXPECT_EQ(0, wrong.load()) << "of " << answers.load();
    EXPECT_GT(answers.load(), 100);
    // An idle daemon lets go of the generations it searched before a
    // rewrite: none of its descriptors holds a removed file for long (the
    // release runs on a timer of a few seconds).
    Churn("idle");
    ASSERT_EQ(0, Index().status);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);  // against a hang only
    while (HoldsRemovedFiles(DaemonProcess()) && std::chrono::steady_clock::now() < deadline) usleep(50000);
    EXPECT_FALSE(HoldsRemovedFiles(DaemonProcess()));
    // Each round rewrote the index: once the daemon's writer is done, no
    // retired generation is left on disk.
    Stop();
    EXPECT_EQ(std::set<std::string>(), Leftovers());
}

// Where a writer dies or meets a full disk; whether the changes of its run
// were committed by then; whether it leaves a generation that no stub names.
struct Point {
    const char *name;
    bool committed;
    bool leftover;
};

class WriteFailures : public DaemonE2e {
protected:
    // For a batch run, then for the daemon's live indexing, and at each of
    // `points`: `fail` makes the writer of a round of changes fail there with
    // failpoint action `action`.  Searches must then answer from the last
    // commit, and the next run must bring the index level with the files
    // and leave nothing behind.
    template <class F>
    void ForEachWriterAndPoint(const char *action, const std::vector<Point> &points, F fail) {
        int round = 0;
        for (const bool daemon : {false, true}) {
            for (const Point &point : points) {
                SCOPED_TRACE(std::string(daemon ? "daemon" : "batch run") + ", " + action + " at " + point.name);
                const std::string word = action + std::to_string(round++);
                Churn(word);
                fail(daemon, point, std::string(point.name) + ":" + action, word);
                EXPECT_EQ(4, Count("fox"));
                EXPECT_EQ(point.committed ? kChurnFiles : 0, Count(word));
                EXPECT_EQ(point.leftover, !Leftovers().empty());
                const Result repair = Index();
                EXPECT_EQ(0, repair.status) << repair.err;
                EXPECT_EQ(kChurnFiles, Count(word));
                EXPECT_EQ(std::set<std::string>(), Leftovers());
            }
        }
    }
};

// kill -9 at each step of a write.
TEST_F(WriteFailures, AWriterKilledAtAnyStepLeavesTheLastCommitThatTheNextRunRepairs) {
    const std::vector<Point> points = {{"adding", false, false},
                                       {"committing", false, false},
                                       {"compacting", true, true},
                                       {"compacted", true, true},
                                       {"swapped", true, true}};
    ForEachWriterAndPoint("kill", points, [&](bool daemon, const Point &, const std::string &failpoint, const std::string &) {
        if (daemon) {
            Launch("env ZARN_FAILPOINT=" + failpoint);
            const int status = Ended();
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status << "\n" << Log();
        } else {
            EXPECT_EQ(128 + SIGKILL, Shell("ZARN_FAILPOINT=" + failpoint + " " ZARNELASTICD " index").status);
        }
    });
}

// A disk that fills during a commit, a rewrite or a stub's write: the run
// fails with the system's word for it, the daemon goes on serving the last
// commit, and once space is back the next run completes.
TEST_F(WriteFailures, AFullDiskFailsTheWriteButNeitherTheDaemonNorTheIndex) {
    const std::string filler = IndexDir() + ".filler", leaks = "LSAN_OPTIONS=suppressions=" ZARN_FULL_DISK_SUPP;
    ASSERT_EQ(0, Shell("mount -t tmpfs -o size=16m tmpfs /var/docs/@eaDir").status);
    ASSERT_EQ(0, Index().status);
    const std::vector<Point> points = {{"committing", false, false}, {"compacting", true, false}, {"stub", true, false}};
    ForEachWriterAndPoint("fill", points, [&](bool daemon, const Point &point, const std::string &failpoint,
                                              const std::string &word) {
        if (daemon) {
            const size_t logged = Log().size();
            Start("env " + leaks + " ZARN_FAILPOINT=" + failpoint);
            EXPECT_TRUE(LogSays("live indexing of share docs failed", logged)) << Log();
            EXPECT_NE(std::string::npos, Log().find("No space left on device", logged)) << Log();
        } else {
            Start("", "--no-live");
            const Result run = Shell(leaks + " ZARN_FAILPOINT=" + failpoint + " " ZARNELASTICD " index");
            EXPECT_EQ(1, run.status);
            EXPECT_NE(std::string::npos, run.err.find("cannot index share docs")) << run.err;
            EXPECT_NE(std::string::npos, run.err.find("No space left on device")) << run.err;
        }
        EXPECT_EQ(kFox, LibrarySearch("fox").paths);
        EXPECT_EQ(point.committed ? kChurnFiles : 0, LibrarySearch(word.c_str()).total);
        Stop();
        EXPECT_EQ(0, unlink(filler.c_str()));
    });
}

}  // namespace
