// The programs' command-line conventions (--help, --version, exit codes),
// the indexer's summary, and the search table fitted to a terminal.
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <tuple>

#include <gtest/gtest.h>

#include "cli.h"
#include "harness.h"
#include "hit_output.h"

namespace {

// "stdout|status|\nstderr" of a command line run behind ZARN_TEST_WRAPPER
// (valgrind), as the tests themselves are.
std::string Shell(const std::string &command) {
    const std::string line = "$ZARN_TEST_WRAPPER " + command + " 2>/var/err; echo \"|$?|\"; cat /var/err";
    FILE *shell = popen(line.c_str(), "r");
    std::string text(1 << 16, '\0');
    text.resize(fread(&text[0], 1, text.size(), shell));
    pclose(shell);
    return text;
}

TEST(ProgramCli, RequestsOnStdoutWrongOptionsOnStderr) {
    const std::string d = ZARNELASTICD, s = ZARNSEARCH_PATH, ok = "\\|0\\|\n", bad = "\\|2\\|\n";
    const std::string usage = "usage: zarnelasticd [^]*--help \\| --version\n";
    const std::pair<std::string, std::string> cases[] = {
        {d + " --help", usage + ok}, {d + " --foreground -h", usage + ok}, {d + " index --help", usage + ok},
        {d + " --version", "zarnelasticd " ZARN_VERSION "\n" + ok}, {d + " --bogus", bad + usage},
        {d + " --workers --help", bad + usage}, {d + " index --foreground", bad + usage},
        {s + " --help", "Usage: zarnsearch [^]*" + ok}, {s + " --version", "zarnsearch " ZARN_VERSION "\n" + ok},
        {s + " --bogus", bad + "zarnsearch: unknown command [^]*"},
    };
    for (const auto &c : cases) {
        const std::string got = Shell(c.first);
        EXPECT_TRUE(std::regex_match(got, std::regex(c.second))) << c.first << "\n" << got;
    }
}

// The indexer reads no more than its text cap of a file, and of one that
// cannot be text no more than a first block: 4 KiB of a 3 GiB sparse file,
// 256 KiB and a little of 1 MiB of text, 4 bytes of the last file: 0.27 MB.
TEST(ProgramCli, IndexerCountsTheBytesItRead) {
    ASSERT_EQ(0, std::system("mkdir /var/docs && echo fox >/var/docs/f.txt && truncate -s 3G /var/docs/big && "
                             "head -c 1048576 /dev/zero | tr '\\0' a >/var/docs/long.txt"));
    zarntest::SetShareTable({{"docs", "/var/docs"}});
    zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/docs"}])");
    const std::string got = Shell(ZARNELASTICD " index --quiet");
    EXPECT_TRUE(std::regex_search(got, std::regex(R"(; 0\.3 MB read \(of 3222\.3 MB walked\) in [^]*\|0\|)")))
        << got;
}

TEST(HitTable, CutsInTheMiddleOnCharacterBoundaries) {
    const std::string e = "\xC3\xA9", dots = "\xE2\x80\xA6";
    const std::tuple<std::string, size_t, size_t, std::string> cases[] = {
        {"abcdefghij", 10, 0, "abcdefghij"}, {"abcdefghij", 6, 0, "ab" + dots + "hij"},
        {"report-final.pdf", 8, 4, "rep" + dots + ".pdf"},
        {"a.verylongextension", 6, 14, "a" + dots + "sion"}, {"abc", 1, 0, dots},
        {e + e + e + e + e + "x", 4, 0, e + dots + e + "x"},
    };
    for (const auto &[text, width, keep_end, cut] : cases)
        EXPECT_EQ(zarncli::CutMiddle(text, width, keep_end), cut) << text;
}

TEST(HitTable, FitsTheWidthKeepingExtensionsAndPathEnds) {
    const std::string name = std::string(250, 'n') + ".xhtml";
    const std::string wide = "\xC3\xA9-" + std::string(60, 'x') + "-\xE6\x97\xA5.txt";
    const std::vector<zarncli::HitRow> rows = {
        {"1", "htm", name, "/m/" + std::string(120, 'd') + "/" + name, "a <b>fox</b>", true},
        {"22", "txt", wide, "/music/" + wide, "", false}, {"333", "dir", "pop", "/music/pop", "", false}};
    EXPECT_NE(zarncli::FormatTable(rows, 0).find(name + "  /m/ddd"), std::string::npos);  // no width: whole
    EXPECT_EQ(zarncli::FormatTable({rows[2]}, 30), zarncli::FormatTable({rows[2]}, 0));  // fits: whole too
    const std::regex ends("[^]*\\.xhtml  /[^]*n\\.xhtml\n +a <b>fox</b>\n"
                          "[^]*\xE6\x97\xA5\\.txt\n[^]*/music/pop\n");
    for (size_t width : {80u, 50u, 34u}) {
        const std::string text = zarncli::FormatTable(rows, width);
        EXPECT_TRUE(std::regex_match(text, ends)) << text;
        for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
            const std::string line = text.substr(at, end - at);  // the highlight's stays whole
            const bool fits = zarncli::TextWidth(line) <= width && zarncli::ValidUtf8(line) == line;
            EXPECT_TRUE(fits || line.find("fox") != std::string::npos) << line;
        }
    }
}

// The width comes from the terminal's size (-1: not a terminal), then from
// COLUMNS; not a terminal: none.
TEST(HitTable, WidthFromTheTerminalThenColumns) {
    const std::tuple<int, const char *, size_t> cases[] = {
        {57, "99", 57}, {0, "70", 70}, {0, nullptr, 0}, {0, "wide", 0}, {-1, "70", 0}};
    const int saved = dup(STDOUT_FILENO);
    for (const auto &[columns, env, expected] : cases) {
        int terminal = -1, out = -1;
        const winsize size{0, static_cast<unsigned short>(columns), 0, 0};
        if (columns >= 0) ASSERT_EQ(0, openpty(&terminal, &out, nullptr, nullptr, &size));
        else out = open("/dev/null", O_WRONLY);
        env ? setenv("COLUMNS", env, 1) : unsetenv("COLUMNS");
        dup2(out, STDOUT_FILENO);
        const size_t width = zarncli::TerminalWidth();
        dup2(saved, STDOUT_FILENO);
        EXPECT_EQ(width, expected) << columns << " " << (env ? env : "unset");
        close(terminal);
        close(out);
    }
}

}  // namespace
