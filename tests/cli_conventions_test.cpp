// The programs' command-line conventions (--help, --version, exit codes),
// the indexer's summary, and the search table fitted to a terminal.
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli.h"
#include "harness.h"
#include "hit_output.h"

extern char **environ;

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string Slurp(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, got);
    close(fd);
    return text;
}

// Runs a program with its outputs in files (they are short), behind
// ZARN_TEST_WRAPPER (valgrind) as the tests themselves.
Outcome Program(std::vector<std::string> argv) {
    std::istringstream wrapper(getenv("ZARN_TEST_WRAPPER") ? getenv("ZARN_TEST_WRAPPER") : "");
    std::vector<std::string> words{std::istream_iterator<std::string>(wrapper), {}};
    argv.insert(argv.begin(), words.begin(), words.end());
    const char *out_path = "/var/tmp/cli.out", *err_path = "/var/tmp/cli.err";
    mkdir("/var/tmp", 0755);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char *> args;
    for (std::string &arg : argv) args.push_back(&arg[0]);
    args.push_back(nullptr);
    pid_t pid = -1;
    Outcome run;
    EXPECT_EQ(0, posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = Slurp(open(out_path, O_RDONLY));
    run.err = Slurp(open(err_path, O_RDONLY));
    return run;
}

TEST(DaemonCli, RequestsOnStdoutErrorsOnStderr) {
    const std::string usage = "^usage: zarnelasticd [^]*--help \\| --version\n$";
    const struct {
        std::vector<std::string> argv;
        int status;
        std::string out, err;  // regular expressions
    } cases[] = {
        {{ZARNELASTICD, "--help"}, 0, usage, ""},
        {{ZARNELASTICD, "--foreground", "-h"}, 0, usage, ""},
        {{ZARNELASTICD, "index", "--help"}, 0, usage, ""},
        {{ZARNELASTICD, "--version"}, 0, "zarnelasticd " ZARN_VERSION "\n", ""},
        {{ZARNSEARCH_PATH, "--version"}, 0, "zarnsearch " ZARN_VERSION "\n", ""},
        {{ZARNELASTICD, "--bogus"}, 2, "", usage},
        {{ZARNELASTICD, "--workers", "--help"}, 2, "", usage},
        {{ZARNELASTICD, "index", "--foreground"}, 2, "", usage},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.argv.back());
        const Outcome run = Program(c.argv);
        EXPECT_EQ(run.status, c.status);
        EXPECT_TRUE(std::regex_match(run.out, std::regex(c.out))) << run.out;
        EXPECT_TRUE(std::regex_match(run.err, std::regex(c.err))) << run.err;
    }
}

// A 3 GiB sparse file gives the indexer no more than its text cap to read.
TEST(DaemonCli, IndexerCountsTheBytesItRead) {
    const std::string root = "/var/tmp/docs";
    mkdir("/var/tmp", 0755);
    mkdir(root.c_str(), 0755);
    zarntest::WriteFile(root + "/fox.txt", "fox\n");
    const int fd = open((root + "/huge.log").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_EQ(0, ftruncate(fd, 3LL << 30));
    close(fd);
    zarntest::SetShareTable({{"docs", root}});
    zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/docs"}])");
    const Outcome run = Program({ZARNELASTICD, "index", "--quiet"});
    EXPECT_EQ(run.status, 0) << run.err;
    // 256 KiB and a little from the sparse file, 4 bytes from the other.
    EXPECT_TRUE(std::regex_search(run.out, std::regex(R"(; 0\.3 MB read \(of 3221\.2 MB walked\) in )")))
        << run.out;
}

// ---- the search table ------------------------------------------------------

using zarncli::FormatTable;
using zarncli::HitRow;
using zarncli::TextWidth;

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

TEST(HitTable, CutsInTheMiddleOnCharacterBoundaries) {
    const std::string e2 = "\xC3\xA9", dots = "\xE2\x80\xA6";
    const struct {
        std::string text;
        size_t width, keep_end;
        std::string cut;
    } cases[] = {
        {"abcdefghij", 10, 0, "abcdefghij"},
        {"abcdefghij", 5, 0, "ab" + dots + "ij"},
        {"abcdefghij", 6, 0, "ab" + dots + "hij"},
        {"report-final.pdf", 8, 4, "rep" + dots + ".pdf"},
        {"a.verylongextension", 6, 14, "a" + dots + "sion"},
        {e2 + e2 + e2 + e2 + e2 + "x", 4, 0, e2 + dots + e2 + "x"},
        {"abc", 1, 0, dots},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text + " in " + std::to_string(c.width));
        EXPECT_EQ(zarncli::CutMiddle(c.text, c.width, c.keep_end), c.cut);
    }
}

TEST(HitTable, FitsTheWidthAndKeepsWhatTellsHitsApart) {
    const std::string long_name = std::string(250, 'n') + ".pdf";
    const std::string long_path = "/music/" + std::string(120, 'd') + "/" + long_name;
    const std::string wide_name = "\xC3\xA9t\xC3\xA9-" + std::string(60, 'x') + "-\xE6\x97\xA5.txt";
    const std::vector<HitRow> rows = {
        {"1", "pdf", long_name, long_path, "a <b>fox</b>", true},
        {"22", "txt", wide_name, "/music/" + wide_name, "", false},
        {"333", "dir", "pop", "/music/pop", "", false},
    };
    // Without a width, and when everything fits, the texts stay whole.
    const std::vector<std::string> whole = Lines(FormatTable(rows, 0));
    ASSERT_EQ(whole.size(), 5u);
    EXPECT_NE(whole[1].find(long_name + "  " + long_path), std::string::npos);
    const std::vector<HitRow> short_rows(rows.begin() + 2, rows.end());
    EXPECT_EQ(FormatTable(short_rows, 40), FormatTable(short_rows, 0));

    for (size_t width : {80u, 50u, 34u}) {
        SCOPED_TRACE(width);
        const std::vector<std::string> lines = Lines(FormatTable(rows, width));
        ASSERT_EQ(lines.size(), 5u);
        for (size_t i : {0u, 1u, 3u, 4u}) {
            EXPECT_LE(TextWidth(lines[i]), width) << lines[i];
            EXPECT_EQ(zarncli::ValidUtf8(lines[i]), lines[i]);
        }
        EXPECT_EQ(lines[2].substr(lines[2].size() - 12), "a <b>fox</b>");  // highlights stay whole
        EXPECT_NE(lines[1].find(".pdf  "), std::string::npos) << lines[1];   // the name's extension
        EXPECT_EQ(lines[1].substr(lines[1].size() - 8), "nnnn.pdf");          // the path's end
        EXPECT_EQ(lines[3].substr(lines[3].size() - 7), "\xE6\x97\xA5.txt");
        EXPECT_EQ(lines[4].substr(lines[4].size() - 10), "/music/pop");
    }
}

// The width comes from the terminal, then from COLUMNS; not a terminal: none.
TEST(HitTable, TerminalWidthFromTheTerminal) {
    const struct {
        bool terminal;
        unsigned short columns;
        const char *env;
        size_t width;
    } cases[] = {{true, 57, "99", 57}, {true, 0, "70", 70}, {true, 0, nullptr, 0},
                 {true, 0, "wide", 0}, {false, 0, "70", 0}};
    const int saved = dup(STDOUT_FILENO);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.width);
        int out = -1, unused[2] = {-1, -1};
        if (c.terminal) {
            out = posix_openpt(O_RDWR | O_NOCTTY);
            ASSERT_TRUE(out >= 0 && grantpt(out) == 0 && unlockpt(out) == 0);
            const int pts = open(ptsname(out), O_RDWR | O_NOCTTY);
            winsize size{};
            size.ws_col = c.columns;
            ASSERT_EQ(0, ioctl(pts, TIOCSWINSZ, &size));
            dup2(pts, STDOUT_FILENO);
            close(pts);
        } else {
            ASSERT_EQ(0, pipe(unused));
            dup2(unused[1], STDOUT_FILENO);
        }
        if (c.env)
            setenv("COLUMNS", c.env, 1);
        else
            unsetenv("COLUMNS");
        const size_t width = zarncli::TerminalWidth();
        dup2(saved, STDOUT_FILENO);
        EXPECT_EQ(width, c.width);
        for (int fd : {out, unused[0], unused[1]})
            if (fd >= 0) close(fd);
    }
    close(saved);
}

}  // namespace
