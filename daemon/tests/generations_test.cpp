// Searches while writers rewrite the index, and writers that die or meet a
// full disk at each step of a write: the index stays whole and searchable,
// and the next run repairs it, leaving nothing behind.
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include <valgrind/valgrind.h>

#include "daemon_fixture.h"
#include "engine.h"
#include "share_index.h"

namespace {

using namespace zarntest;

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
// itself (a failure throws, which fails the test).
int64_t Count(const std::string &query) {
    zarnd::SearchPlan plan;
    plan.query = query;
    std::vector<uint32_t> ids;
    return static_cast<int64_t>(zarnd::OpenSearchIndex(IndexDir())->PageIds(plan, &ids));
}

// What the index directory holds besides the stub, the lock and the
// generation that the stub names ("glass gen-N"): what a dead writer left.
std::string Leftovers() {
    return Shell("cd '" + IndexDir() + "' && ls | grep -vx -e XAPIANDB -e zarnelasticd.lock -e \"$(cut -d' ' -f2 XAPIANDB)\"").out;
}

// Whether process `pid` holds a file of the index that was removed since.
bool HoldsRemovedFiles(pid_t pid) {
    return Shell("ls -l /proc/" + std::to_string(pid) + "/fd | grep -q '" + IndexDir() + ".*(deleted)'").status == 0;
}

// Runs a program with each file opening slowed down: the steps between
// reading a stub and opening what it names, or between choosing a
// generation and opening it, take long enough for another writer to act.
// LeakSanitizer cannot work under a tracer; the other tests look for leaks.
const std::string kSlowOpens =
    "env ASAN_OPTIONS=${ASAN_OPTIONS:-}:detect_leaks=0 strace -f -qq -o /dev/null -e trace=openat -e inject=openat:delay_enter=2000";

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
        // A thread spinning on every core: a machine this loaded stretches
        // every window between two steps of a writer or a reader.  (Valgrind
        // runs one thread at a time and stretches them anyway.)
        for (unsigned k = 0; !RUNNING_ON_VALGRIND && k < std::thread::hardware_concurrency(); ++k)
            clients.emplace_back([&] {
                while (!done) {
                }
            });
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
    EXPECT_EQ("", Leftovers());
}

// Where a writer dies (kill) or meets a full disk (fill); whether the
// changes of its run were committed by then; whether it leaves a generation
// that no stub names.
struct Point {
    const char *name, *action;
    bool committed, leftover;
};
const Point kPoints[] = {{"adding", "kill", false, false},     {"committing", "kill", false, false},
                         {"compacting", "kill", true, true},   {"compacted", "kill", true, true},
                         {"swapped", "kill", true, true},      {"adding", "fill", false, false},
                         {"committing", "fill", false, false}, {"in-commit", "fill", false, false},
                         {"compacting", "fill", true, false},  {"stub", "fill", true, false}};

// A batch run, then the daemon's live indexing, killed or out of disk at
// each step of a write.  A killed writer leaves the last commit for
// searches; a full disk fails the run with the system's word for it while
// the daemon goes on serving the last commit.  Either way the next run
// brings the index level with the files and leaves nothing behind.
TEST_F(DaemonE2e, AWriterKilledOrOutOfDiskAtAnyStepLeavesTheLastCommitThatTheNextRunRepairs) {
    const std::string filler = IndexDir() + ".filler", leaks = "LSAN_OPTIONS=suppressions=" ZARN_FULL_DISK_SUPP;
    ASSERT_EQ(0, Shell("mount -t tmpfs -o size=16m tmpfs /var/docs/@eaDir").status);
    ASSERT_EQ(0, Index().status);
    int round = 0;
    for (const bool daemon : {false, true}) {
        for (const Point &point : kPoints) {
            SCOPED_TRACE(std::string(daemon ? "daemon, " : "batch run, ") + point.action + " at " + point.name);
            const std::string word = point.action + std::to_string(round++);
            const std::string failpoint = "ZARN_FAILPOINT=" + std::string(point.name) + ":" + point.action;
            Churn(word);
            const size_t logged = Log().size();
            if (point.action == std::string("kill") && daemon) {
                Launch("env " + failpoint);
                const int status = Ended();
                EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status << "\n" << Log();
            } else if (point.action == std::string("kill")) {
                EXPECT_EQ(128 + SIGKILL, Shell(failpoint + " " ZARNELASTICD " index").status);
            } else {
                Start(daemon ? "env " + leaks + " " + failpoint : "", daemon ? "" : "--no-live");
                const Result run = daemon ? Result() : Shell(leaks + " " + failpoint + " " ZARNELASTICD " index");
                const std::string said = daemon && LogSays("live indexing of share docs failed", logged) ? Log().substr(logged) : run.err;
                EXPECT_EQ(daemon ? -1 : 1, run.status);
                EXPECT_NE(std::string::npos, said.find(daemon ? "live indexing" : "cannot index share docs")) << said;
                EXPECT_NE(std::string::npos, said.find("No space left on device")) << said;
                EXPECT_EQ(kFox, LibrarySearch("fox").paths);
                EXPECT_EQ(point.committed ? kChurnFiles : 0, LibrarySearch(word.c_str()).total);
                Stop();
                EXPECT_EQ(0, unlink(filler.c_str()));
            }
            EXPECT_EQ(4, Count("fox"));
            EXPECT_EQ(point.committed ? kChurnFiles : 0, Count(word));
            EXPECT_EQ(point.leftover, !Leftovers().empty()) << Leftovers();
            const Result repair = Index();
            EXPECT_EQ(0, repair.status) << repair.err;
            EXPECT_EQ(kChurnFiles, Count(word));
            EXPECT_EQ("", Leftovers());
        }
    }
}

}  // namespace
