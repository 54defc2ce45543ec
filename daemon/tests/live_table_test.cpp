// Live indexing and the batch indexer against the files, one row per way a
// change could be lost or doubled: each row changes the share while live
// indexing runs, then searches must show the files as they are, and a last
// batch run must find nothing to do.  Rows run in the sandbox, each in its
// own; the index is searched in this process, batch runs and the daemon run
// as the real programs.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>

#include "daemon_client.h"
#include "engine.h"
#include "harness.h"
#include "live_index.h"
#include "share_index.h"
#include "utf8.h"
#include "zarnsearch_run.h"

// Watches of folders named "blocked" fail (EACCES) while /var/nowatch
// exists: a failure other than the watch limit.
extern "C" int inotify_add_watch(int fd, const char *path, uint32_t mask) {
    char target[4096] = {0};
    const ssize_t n = readlink(path, target, sizeof target - 1);
    const std::string resolved = n > 0 ? std::string(target, n) : std::string(path);
    const std::string blocked = "/blocked";
    if (access("/var/nowatch", F_OK) == 0 && resolved.size() >= blocked.size() &&
        resolved.compare(resolved.size() - blocked.size(), blocked.size(), blocked) == 0) {
        errno = EACCES;
        return -1;
    }
    return static_cast<int>(syscall(SYS_inotify_add_watch, fd, path, mask));
}

namespace {

using namespace zarntest;
using Paths = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
constexpr unsigned kStranger = 54321;  // no group: the "other" bits apply

struct Step {
    const char *shell;        // run with the row's variables ($IDX, $P0, $P1, $D, $Z, $CONFIG)
    bool check = true;        // then the searches must match the files
    const char *log = nullptr;  // and, first, live indexing must have logged this
};

struct Row {
    const char *name;
    const char *setup;  // in a fresh /var/docs, before the first batch run
    std::vector<const char *> listed;
    std::vector<Step> steps;
    int runs = 1;        // final batch runs, each with nothing to do
    bool live = true;    // live indexing in this process during the steps
    bool shards = false;  // the index over two shards served by xapian-tcpsrv
};

// The daemon stopped by SIGTERM during its first rescan of 3,000 files, once
// its first batch is searchable: gone within 2 s, its rescan unfinished but
// what it did committed; the next start completes it.
constexpr char kSigterm[] = R"sh(mkdir -p /var/docs/bulk && cd /var/docs/bulk || exit 1
    for i in $(seq 3000); do echo "needle $i" > f$i.txt; done
    $D --foreground 2>/var/d1.log &
    pid=$!
    for i in $(seq 1000); do [ "$($Z count docs '*' 2>/dev/null || echo 0)" -gt 1 ] && break; sleep 0.01; done
    before=$(date +%s%N)
    kill -TERM $pid && wait $pid || exit 1
    took=$(( ($(date +%s%N) - before) / 1000000 ))
    echo "stopped in $took ms"
    [ $took -lt 2000 ] && ! grep -q 'share docs rescanned' /var/d1.log || exit 1
    $D --foreground 2>/var/d2.log &
    pid=$!
    for i in $(seq 1200); do grep -q 'share docs rescanned' /var/d2.log && break; sleep 0.05; done
    kill -TERM $pid && wait $pid || exit 1
    added=$(sed -n 's/.*share docs rescanned.*: \([0-9]*\) added.*/\1/p' /var/d2.log)
    echo "the next start added $added"
    [ -n "$added" ] && [ "$added" -lt 3001 ])sh";

const Row kRows[] = {
    // Names that differ only in bytes that are not UTF-8, and a literal
    // backslash-x name: one document each, over five runs.
    {"names_not_utf8",
     R"sh(printf 'needle one\n' > "$(printf 'caf\351.txt')" && printf 'needle two\n' > "$(printf 'caf\350.txt')" &&
          printf 'needle lit\n' > 'caf\xE9.txt' && printf 'needle bs\n' > 'back\\slash.txt')sh",
     {"/docs"},
     {{R"sh(printf 'needle three\n' > "/var/docs/$(printf 'caf\347.txt')" && touch /var/docs/*)sh"}},
     5},
    // A shard down while a change arrives: it lands once the shard is back.
    {"shard_stopped",
     "echo needle > a.txt",
     {"/docs"},
     {{"kill $(cat /var/shard1.pid) && sleep 0.3 && echo needle > /var/docs/down.txt && sleep 1 && "
       "echo needle > /var/docs/later.txt && sleep 1", false},
      {"shard 1"}},
     1, true, true},
    // The index's file system full while changes arrive.
    {"disk_full",
     "mkdir -p $IDX && mount -t tmpfs -o size=16m tmpfs $IDX && echo needle > a.txt",
     {"/docs"},
     {{"dd if=/dev/zero of=$IDX/filler bs=64k 2>/dev/null; for i in $(seq 30); do "
       "head -c 10000 /dev/urandom | base64 > /var/docs/big$i.txt && echo needle >> /var/docs/big$i.txt; done && sleep 1.5",
       false},
      {"rm $IDX/filler"}}},
    // An indexed folder removed, and a copy restored in its place.
    {"restored_folder",
     "mkdir work && echo needle > work/a.txt && cp -a work /var/work.bak && echo needle > /var/work.bak/b.txt",
     {"/docs/work"},
     {{"rm -rf /var/docs/work && sleep 0.3 && mv /var/work.bak /var/docs/work"}, {"echo needle > /var/docs/work/later.txt"}}},
    // Another file system mounted over an indexed folder, then taken away.
    {"mounted_over",
     "mkdir work && echo needle > work/a.txt",
     {"/docs/work"},
     {{"mount -t tmpfs tmpfs /var/docs/work && echo needle > /var/docs/work/m.txt"},
      {"umount /var/docs/work"},
      {"echo needle > /var/docs/work/later.txt"}}},
    // A folder that cannot be watched (not the watch limit): the share is
    // rescanned every period until the watch succeeds.
    {"watch_fails",
     "mkdir -p blocked/deep && echo needle > blocked/deep/a.txt && touch /var/nowatch",
     {"/docs"},
     {{"echo needle > /var/docs/blocked/new.txt"},
      {"rm /var/nowatch", false, "every folder watched again"},
      {"echo needle > /var/docs/blocked/deep/later.txt"}}},
    // An indexed folder renamed onto another, empty one.
    {"renamed_onto",
     "mkdir a b && echo needle > a/x.txt",
     {"/docs/a", "/docs/b"},
     {{"mv -T /var/docs/a /var/docs/b"}, {"echo needle > /var/docs/b/later.txt"}}},
    // Folders replaced by a file of the same name: an indexed one and one
    // inside an indexed folder.
    {"folder_to_file",
     "mkdir -p sub/inner && echo needle > sub/inner/x.txt",
     {"/docs/sub"},
     {{"rm -rf /var/docs/sub/inner && echo needle > /var/docs/sub/inner"},
      {"rm -rf /var/docs/sub && echo needle > /var/docs/sub"}}},
    // Permissions taken away while a whole rescan runs.
    {"chmod_in_rescan",
     "mkdir -p many/open && for i in $(seq 600); do echo needle $i > many/f$i.txt; done && echo needle > many/open/x.txt",
     {"/docs"},
     {{"touch $CONFIG && sleep 0.05 && chmod 700 /var/docs/many/open && chmod 600 /var/docs/many/f1.txt"}}},
    {"sigterm_in_rescan", "echo needle > a.txt", {"/docs"}, {{kSigterm}}, 1, false},
};

// What the index must hold: every entry of the listed folders (escaped
// path), whether a stranger may read it, and whether it says "needle".
struct Expected {
    std::multiset<std::string> all;
    Paths needle;  // that a stranger may read, sorted
};

bool SaysNeedle(const std::string &text) {
    for (size_t at = text.find("needle"); at != std::string::npos; at = text.find("needle", at + 1))
        if ((at == 0 || !isalnum(text[at - 1])) && (at + 6 == text.size() || !isalnum(text[at + 6]))) return true;
    return false;
}

void Walk(const std::string &abs, const std::string &path, dev_t dev, bool open, bool listed, Expected *out) {
    struct stat st;
    if (lstat(abs.c_str(), &st) != 0 || st.st_dev != dev) return;
    const bool readable = open && (st.st_mode & S_IROTH);
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) return;
    if (!listed || path != "/docs") out->all.insert(zarnd::EscapeName(path));
    if (S_ISREG(st.st_mode)) {
        std::ifstream in(abs);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (readable && SaysNeedle(text)) out->needle.push_back(zarnd::EscapeName(path));
    }
    if (!S_ISDIR(st.st_mode)) return;
    DIR *dir = opendir(abs.c_str());
    while (const dirent *entry = dir ? readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name != "@eaDir")
            Walk(abs + "/" + name, path + "/" + name, dev, open && (st.st_mode & S_IXOTH), false, out);
    }
    if (dir) closedir(dir);
}

Expected FromFiles(const Row &row) {
    Expected expected;
    struct stat root;
    stat("/var/docs", &root);
    for (const std::string folder : row.listed)
        Walk("/var" + folder, folder, root.st_dev, (root.st_mode & S_IXOTH) != 0, true, &expected);
    std::sort(expected.needle.begin(), expected.needle.end());
    return expected;
}

Expected FromIndex(size_t room) {
    Expected found;
    try {
        const std::unique_ptr<zarnd::SearchIndex> index = zarnd::OpenSearchIndex(zarnd::IndexDirOfShare("docs"));
        const zarnd::Credentials stranger{kStranger, {}};
        for (const bool all : {true, false}) {
            zarnd::SearchPlan plan;
            plan.query = all ? "*" : "needle";
            plan.size = static_cast<uint32_t>(room);
            plan.fields = {"ZARNMDPath"};
            plan.reader = all ? nullptr : &stranger;
            index->Search(plan, [](uint64_t) {}, [&](const zarnd::Hit &hit) {
                const std::string path = hit.fields["ZARNMDPath"].asString();
                all ? (void)found.all.insert(path) : found.needle.push_back(path);
                return true;
            });
        }
    } catch (const std::exception &e) {
        found.all.insert(std::string("search failed: ") + e.what());
    }
    std::sort(found.needle.begin(), found.needle.end());
    return found;
}

std::string Show(const Expected &e) {
    std::string text = "all:";
    for (const std::string &path : e.all) text += " " + path;
    text += "\nneedle:";
    for (const std::string &path : e.needle) text += " " + path;
    return text.size() > 4000 ? text.substr(0, 4000) + "..." : text;
}

// The searches once they match the files, or what they found last.
void ExpectCurrent(const Row &row, int seconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    Expected files, index;
    do {
        files = FromFiles(row);
        index = FromIndex(files.all.size() + 10);
        if (files.all == index.all && files.needle == index.needle) return;
        usleep(50000);
    } while (Clock::now() < deadline);
    std::string said;
    for (const LogLine &line : LogsMatching("live indexing|share docs")) said += line.text + "\n";
    ADD_FAILURE() << "files:\n" << Show(files) << "\nindex:\n" << Show(index) << "\nlive indexing said:\n" << said;
}

bool LoggedInTime(const std::string &text) {
    for (int i = 0; i < 300; ++i, usleep(50000))
        if (!LogsMatching(text).empty()) return true;
    return false;
}

class LiveTable : public ::testing::TestWithParam<Row> {
protected:
    void TearDown() override { Shell("for f in /var/shard*.pid; do [ -f $f ] && kill $(cat $f); done; true"); }
};

TEST_P(LiveTable, SearchesMatchTheFilesAndABatchRunHasNothingToDo) {
    const Row &row = GetParam();
    mount("/dev/null", "/dev/log", "none", MS_BIND, nullptr);  // the programs' log lines to their stderr only
    SetShareTable({{"docs", "/var/docs"}});
    std::string listed = "[";
    for (const char *folder : row.listed) listed += std::string(listed.size() > 1 ? ", " : "") + R"({"path": ")" + folder + "\"}";
    WriteFile(kFolderConfig, listed + "]");
    std::string env = "export IDX='" + zarnd::IndexDirOfShare("docs") + "' D='" ZARNELASTICD "' Z='" ZARNSEARCH_PATH "' CONFIG='" +
                      std::string(kFolderConfig) + "' P0=" + std::to_string(FreePort()) +
                      " P1=" + std::to_string(FreePort()) + " && "
                      // xapian-tcpsrv, stopped, signals its whole process
                      // group: it runs in a group of its own.
                      "shard() { eval port=\\$P$1; setsid xapian-tcpsrv --writable --quiet --interface 127.0.0.1 --port $port "
                      "/var/shard$1 >>/var/shards.log 2>&1 & echo $! > /var/shard$1.pid; sleep 0.3; } && ";
    ASSERT_EQ(0, Shell(env + "mkdir -p /var/docs && cd /var/docs && " + row.setup).status);
    if (row.shards) {
        ASSERT_EQ(0, Shell(env + "shard 0 && shard 1 && $D index --quiet --share docs --shards 127.0.0.1:$P0,127.0.0.1:$P1").status);
    }
    ASSERT_EQ(0, Shell(ZARNELASTICD " index --quiet").status);
    {
        zarnd::LiveIndex live({kFolderConfig, 0, std::chrono::milliseconds(300)});
        if (row.live) {
            ASSERT_TRUE(live.Start());
            ASSERT_TRUE(LoggedInTime("share docs rescanned"));
        }
        for (const Step &step : row.steps) {
            const Result result = Shell(env + step.shell);
            ASSERT_EQ(0, result.status) << step.shell << "\n" << result.out << result.err;
            if (step.log != nullptr) {
                EXPECT_TRUE(LoggedInTime(step.log)) << step.log;
            }
            if (step.check) ExpectCurrent(row, 30);
        }
    }
    for (int run = 0; run < row.runs; ++run) {
        const Result result = Shell(ZARNELASTICD " index --quiet");
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_NE(std::string::npos, result.out.find(" 0 added, 0 updated, 0 removed")) << result.out;
        ExpectCurrent(row, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, LiveTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row> &info) { return std::string(info.param.name); });

}  // namespace
