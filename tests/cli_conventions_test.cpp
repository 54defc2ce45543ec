// The programs' command-line conventions (--help, --version, exit codes),
// the indexer's summary, and the search table fitted to a terminal.
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli.h"
#include "harness.h"
#include "hit_output.h"

namespace {

// "stdout|status|\nstderr" of a command line run behind ZARN_TEST_WRAPPER
// (valgrind), as the tests themselves are.
std::string Shell(const std::string &command) {
    FILE *shell = popen(("$ZARN_TEST_WRAPPER " + command + " 2>/var/err; echo \"|$?|\"; cat /var/err").c_str(), "r");
    std::string text(1 << 16, '\0');
    text.resize(fread(&text[0], 1, text.size(), shell));
    pclose(shell);
    return text;
}

TEST(ProgramCli, RequestsOnStdoutWrongOptionsOnStderr) {
    const std::string d = ZARNELASTICD, s = ZARNSEARCH_PATH, usage = "usage: zarnelasticd [^]*--help \\| --version\n";
    const std::pair<std::string, std::string> cases[] = {
        {d + " --help", usage + "\\|0\\|\n"},
        {d + " --foreground -h", usage + "\\|0\\|\n"},
        {d + " index --help", usage + "\\|0\\|\n"},
        {d + " --version", "zarnelasticd " ZARN_VERSION "\n\\|0\\|\n"},
        {d + " --bogus", "\\|2\\|\n" + usage},
        {d + " --workers --help", "\\|2\\|\n" + usage},
        {d + " index --foreground", "\\|2\\|\n" + usage},
        {s + " --help", "Usage: zarnsearch [^]*\\|0\\|\n"},
        {s + " --version", "zarnsearch " ZARN_VERSION "\n\\|0\\|\n"},
        {s + " --bogus", "\\|2\\|\nzarnsearch: unknown command [^]*"},
    };
    for (const auto &c : cases) {
        const std::string got = Shell(c.first);
        EXPECT_TRUE(std::regex_match(got, std::regex(c.second))) << c.first << "\n" << got;
    }
}

// A 3 GiB sparse file gives the indexer no more than its text cap to read.
TEST(ProgramCli, IndexerCountsTheBytesItRead) {
    ASSERT_EQ(0, std::system("mkdir /var/docs && echo fox >/var/docs/f.txt && truncate -s 3G /var/docs/huge.log"));
    zarntest::SetShareTable({{"docs", "/var/docs"}});
    zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/docs"}])");
    const std::string got = Shell(ZARNELASTICD " index --quiet");
    // 256 KiB and a little from the sparse file, 4 bytes from the other.
    EXPECT_TRUE(std::regex_search(got, std::regex(R"(; 0\.3 MB read \(of 3221\.2 MB walked\) in [^]*\|0\|)"))) << got;
}

TEST(HitTable, CutsInTheMiddleOnCharacterBoundaries) {
    const std::string e = "\xC3\xA9", dots = "\xE2\x80\xA6";
    const struct {
        std::string text;
        size_t width, keep_end;
        std::string cut;
    } cases[] = {
        {"abcdefghij", 10, 0, "abcdefghij"}, {"abcdefghij", 6, 0, "ab" + dots + "hij"},
        {"report-final.pdf", 8, 4, "rep" + dots + ".pdf"}, {"a.verylongextension", 6, 14, "a" + dots + "sion"},
        {e + e + e + e + e + "x", 4, 0, e + dots + e + "x"}, {"abc", 1, 0, dots},
    };
    for (const auto &c : cases) EXPECT_EQ(zarncli::CutMiddle(c.text, c.width, c.keep_end), c.cut) << c.text;
}

TEST(HitTable, FitsTheWidthKeepingExtensionsAndPathEnds) {
    const std::string name = std::string(250, 'n') + ".xhtml", wide = "\xC3\xA9-" + std::string(60, 'x') + "-\xE6\x97\xA5.txt";
    const std::vector<zarncli::HitRow> rows = {{"1", "htm", name, "/m/" + std::string(120, 'd') + "/" + name, "a <b>fox</b>", true},
                                               {"22", "txt", wide, "/music/" + wide, "", false},
                                               {"333", "dir", "pop", "/music/pop", "", false}};
    EXPECT_NE(zarncli::FormatTable(rows, 0).find(name + "  /m/ddd"), std::string::npos);  // no width: whole
    const std::vector<zarncli::HitRow> short_rows(rows.begin() + 2, rows.end());
    EXPECT_EQ(zarncli::FormatTable(short_rows, 30), zarncli::FormatTable(short_rows, 0));
    for (size_t width : {80u, 50u, 34u}) {
        std::vector<std::string> lines;
        std::string text = zarncli::FormatTable(rows, width);
        for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            lines.push_back(text.substr(at, end - at));
        ASSERT_EQ(lines.size(), 5u) << text;
        for (size_t i : {0u, 1u, 3u, 4u})
            EXPECT_TRUE(zarncli::TextWidth(lines[i]) <= width && zarncli::ValidUtf8(lines[i]) == lines[i]) << lines[i];
        EXPECT_TRUE(std::regex_match(text, std::regex("[^]*\\.xhtml  /[^]*n\\.xhtml\n +a <b>fox</b>\n[^]*\xE6\x97\xA5\\.txt\n"
                                                      "[^]*/music/pop\n")))
            << text;
    }
}

// The width comes from the terminal, then from COLUMNS; not a terminal: none.
TEST(HitTable, WidthFromTheTerminalThenColumns) {
    const struct {
        int columns;  // -1: not a terminal
        const char *env;
        size_t width;
    } cases[] = {{57, "99", 57}, {0, "70", 70}, {0, nullptr, 0}, {0, "wide", 0}, {-1, "70", 0}};
    const int saved = dup(STDOUT_FILENO);
    for (const auto &c : cases) {
        int terminal = -1, out = -1;
        winsize size{};
        size.ws_col = static_cast<unsigned short>(c.columns);
        if (c.columns >= 0) ASSERT_EQ(0, openpty(&terminal, &out, nullptr, nullptr, &size));
        else out = open("/dev/null", O_WRONLY);
        c.env ? setenv("COLUMNS", c.env, 1) : unsetenv("COLUMNS");
        dup2(out, STDOUT_FILENO);
        const size_t width = zarncli::TerminalWidth();
        dup2(saved, STDOUT_FILENO);
        EXPECT_EQ(width, c.width) << c.columns << " " << (c.env ? c.env : "unset");
        close(terminal);
        close(out);
    }
}

}  // namespace
