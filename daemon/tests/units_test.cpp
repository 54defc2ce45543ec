// The daemon's units on their own: permissions, sort keys, fragments, text
// extraction, request parsing, the folder list and the index writer.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <xapian.h>

#include "failure.h"
#include "file_record.h"
#include "folders.h"
#include "fragment.h"
#include "gzip_text.h"
#include "harness.h"
#include "json_text.h"
#include "perm.h"
#include "request.h"
#include "sort_key.h"
#include "text_content.h"
#include "utf8.h"
#include "xapian_document.h"

namespace zarnd {
namespace {

// ---- permissions ----------------------------------------------------------

struct PermCase {
    const char *name;
    uint32_t uid;
    std::vector<uint32_t> groups;
    AccessChain chain;  // file first
    bool readable;
};

TEST(DaemonPermission, ModeBitsOfTheFileAndEveryFolderAbove) {
    const Access open_dir = {0, 0, 040755};
    const PermCase cases[] = {
        {"other may read", 1000, {100}, {{0, 0, 0100644}, open_dir}, true},
        {"other may not read", 1000, {100}, {{0, 0, 0100640}, open_dir}, false},
        {"group member reads", 1000, {50, 100}, {{0, 100, 0100640}, open_dir}, true},
        {"owner class only, though other may", 1000, {}, {{1000, 0, 0100074}, open_dir}, false},
        {"group class only, though other may", 1000, {7}, {{0, 7, 0100604}, open_dir}, false},
        {"owner reads own file", 1000, {}, {{1000, 0, 0100400}, open_dir}, true},
        {"folder without search bit hides", 1000, {}, {{0, 0, 0100644}, {0, 0, 040754}}, false},
        {"search bit without read is enough", 1000, {}, {{0, 0, 0100644}, {0, 0, 040711}}, true},
        {"grand-folder closed to the group", 2000, {9}, {{0, 0, 0100644}, open_dir, {0, 9, 040705}}, false},
        {"grand-folder open to the owner", 2000, {}, {{0, 0, 0100644}, open_dir, {2000, 9, 040700}}, true},
        {"root reads everything", 0, {}, {{5, 5, 0100000}, {5, 5, 040000}}, true},
    };
    for (const PermCase &c : cases) {
        Credentials user;
        user.uid = c.uid;
        user.groups = c.groups;
        EXPECT_EQ(c.readable, MayRead(user, EncodeAccessChain(c.chain))) << c.name;
    }
}

TEST(DaemonPermission, DamagedChainIsRefused) {
    Credentials user;
    user.uid = 1000;
    EXPECT_FALSE(MayRead(user, ""));
    EXPECT_FALSE(MayRead(user, EncodeAccessChain({{0, 0, 0100644}}).substr(0, 11)));
}

TEST(DaemonPermission, PeerActsOnlyAsItselfUnlessRoot) {
    EXPECT_TRUE(PeerMayActAs(0, 0));
    EXPECT_TRUE(PeerMayActAs(0, 1000));
    EXPECT_TRUE(PeerMayActAs(1000, 1000));
    EXPECT_FALSE(PeerMayActAs(1000, 0));
    EXPECT_FALSE(PeerMayActAs(1000, 1001));
}

TEST(DaemonPermission, UnknownUserHasNoGroups) {
    const Credentials user = LookupCredentials(4000000001u);
    EXPECT_EQ(4000000001u, user.uid);
    EXPECT_TRUE(user.groups.empty());
    const Credentials root = LookupCredentials(0);
    EXPECT_TRUE(std::binary_search(root.groups.begin(), root.groups.end(), 0u));
}

// ---- sort keys ------------------------------------------------------------

TEST(DaemonSortKey, NaturalOrder) {
    const std::vector<std::string> expected = {"",       "a",       "File1",   "file2",  "file10",
                                               "file10b", "file010c", "file99z", "file100", "filea",
                                               "x2y3",    "x2y10",   "x10"};
    std::vector<std::string> sorted = expected;
    std::reverse(sorted.begin(), sorted.end());
    std::sort(sorted.begin(), sorted.end(), [](const std::string &a, const std::string &b) {
        return NaturalKey(a) < NaturalKey(b);
    });
    EXPECT_EQ(expected, sorted);
    EXPECT_EQ(NaturalKey("a01"), NaturalKey("a1"));
    EXPECT_EQ(NaturalKey("v0"), NaturalKey("v000"));
    EXPECT_LT(NaturalKey("v0"), NaturalKey("v1"));
}

TEST(DaemonSortKey, CompositeKeysCompareFieldByFieldEachInItsDirection) {
    // (first ascending, second descending), with NULs and prefixes inside.
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"a", "z"}, {"a", std::string("b\0\1", 3)}, {"a", std::string("b\0", 2)}, {"a", "b"},
        {"a", ""},  {std::string("a\0", 2), "z"},   {"ab", "a"},                   {"b", "a"}};
    std::vector<std::string> keys;
    for (const auto &row : expected) {
        std::string key;
        AppendKeyComponent(&key, row.first, false);
        AppendKeyComponent(&key, row.second, true);
        keys.push_back(key);
    }
    for (size_t i = 1; i < keys.size(); ++i) EXPECT_LT(keys[i - 1], keys[i]) << i;
}

// ---- fragments ------------------------------------------------------------

TEST(DaemonFragment, CutsBelowTheLimitWithoutBreakingAnything) {
    struct Case {
        std::string in;
        size_t frag_length;
        std::string out;
    } cases[] = {
        {"short <em>hit</em>", 100, "short <em>hit</em>"},
        {"abcdef", 4, "abc"},
        {"ab\xC3\xA9z", 4, "ab"},                  // é would end at byte 4
        {"a &amp; b", 5, "a "},                    // no half escape
        {"xy <em>word</em> tail", 12, "<em>wo</em>"},  // the match shown, if only in part
        {"xy <em>word</em> tail", 16, "y <em>word</em>"},  // text before the match gives way
        {"<em>a</em> <em>b</em>", 13, "<em>a</em> "},
        {"anything", 1, ""},
        {"0123456789 <em>x</em> b", 12, " <em>x</em>"},     // the first highlight stays
        {"\xC3\xA9\xC3\xA9 <em>xyz</em>", 14, " <em>xyz</em>"},
        {"a <em>b</em> c", 11, "<em>b</em>"},
        {"a <em>b</em> c", 10, ""},  // no empty highlight, no half tag
    };
    for (const Case &c : cases) {
        const std::string out = CutFragment(c.in, c.frag_length);
        EXPECT_EQ(c.out, out) << c.in << " / " << c.frag_length;
        EXPECT_LT(out.size(), std::max<size_t>(c.frag_length, 1));
    }
}

// ---- text content ---------------------------------------------------------

int MemoryFile(const std::string &content) {
    const int fd = memfd_create("content", 0);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    return fd;
}

TEST(DaemonTextContent, PlainGzipBinaryAndRepairedText) {
    const struct {
        const char *name;
        std::string content;
        bool text;
        std::string expected;
    } cases[] = {
        {"plain", "hello world\n", true, "hello world\n"},
        {"gzip", Gzip("inflated text\n"), true, "inflated text\n"},
        {"binary", std::string("ELF\0\1\2", 6), false, ""},
        {"latin-1", "caf\xE9 ol\xE9", true, "caf\xEF\xBF\xBD ol\xEF\xBF\xBD"},
        {"controls", std::string(40, '\x01') + "abc", false, ""},
        {"empty", "", false, ""},
    };
    for (const auto &c : cases) {
        const int fd = MemoryFile(c.content);
        std::string text = "stale";
        EXPECT_EQ(c.text, ExtractText(fd, &text)) << c.name;
        EXPECT_EQ(c.expected, text) << c.name;
        close(fd);
    }
}

TEST(DaemonTextContent, CapCutsBetweenCharacters) {
    const std::string content = std::string(9, 'a') + "\xE2\x82\xAC" + "tail";  // € at 9..11
    const int fd = MemoryFile(content);
    std::string text;
    ASSERT_TRUE(ExtractText(fd, &text, 10));
    EXPECT_EQ(std::string(9, 'a'), text);
    ASSERT_TRUE(ExtractText(fd, &text, 12));
    EXPECT_EQ(content.substr(0, 12), text);
    close(fd);
}

TEST(DaemonUtf8, RepairCountsEachBadByte) {
    size_t invalid = 0;
    EXPECT_EQ("a\xEF\xBF\xBD\xEF\xBF\xBD" "b", RepairUtf8("a\xC0\xAF" "b", 4, &invalid));  // overlong
    EXPECT_EQ(2u, invalid);
    EXPECT_EQ("\xF0\x9F\x98\x80", RepairUtf8("\xF0\x9F\x98\x80", 4, &invalid));
    EXPECT_EQ(0u, invalid);
    EXPECT_EQ(0u, Utf8SequenceLength("\xED\xA0\x80", 3));  // a surrogate
}

// ---- names ----------------------------------------------------------------

TEST(DaemonFileName, WordsAndExtension) {
    const struct {
        const char *name, *words, *extension;
    } cases[] = {
        {"annual_report-2020.pdf", "annual report 2020 pdf", "pdf"},
        {"a.tar.gz", "a tar gz", "gz"},
        {".profile", "profile", ""},
        {"trailing.", "trailing", ""},
        {"--x--", "x", ""},
        {"r\xC3\xA9sum\xC3\xA9.doc", "r\xC3\xA9sum\xC3\xA9 doc", "doc"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.words, SearchFileName(c.name)) << c.name;
        EXPECT_EQ(c.extension, Extension(c.name)) << c.name;
    }
}

// ---- requests -------------------------------------------------------------

Json::Value Parse(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(zarn::json::FromString(text, &value)) << text;
    return value;
}

TEST(DaemonRequest, SearchDefaultsAndMembers) {
    const SearchRequest r = ParseSearchRequest(Parse(
        R"({"indice":["fileindex_s"],"from":20,"size":5,"query_string":{"query":"q"},)"
        R"("filters":[{"name":"permission","data":3000000000}],"collector":{"agent":"ag","uid":7},)"
        R"("fields":["ZARNMDPath"],"sorter":[{"field":"ZARNMDFSName","direction":"desc","nature_sort":true}],)"
        R"("highlight":[{"field":"ZARNMDTextContent","frag_length":40}]})"));
    EXPECT_EQ("fileindex_s", r.index_id);
    EXPECT_EQ(20u, r.plan.from);
    EXPECT_EQ(5u, r.plan.size);
    EXPECT_EQ("q", r.plan.query);
    EXPECT_TRUE(r.has_permission_uid);
    EXPECT_EQ(3000000000u, r.permission_uid);
    EXPECT_EQ("ag", r.agent);
    EXPECT_EQ(7u, r.collector_uid);
    ASSERT_EQ(1u, r.plan.sort.size());
    EXPECT_TRUE(r.plan.sort[0].descending);
    EXPECT_TRUE(r.plan.sort[0].natural);
    ASSERT_EQ(1u, r.plan.highlight.size());
    EXPECT_EQ(40u, r.plan.highlight[0].frag_length);

    const SearchRequest d = ParseSearchRequest(Parse(R"({"indice":"fileindex_s"})"));
    EXPECT_EQ(0u, d.plan.from);
    EXPECT_EQ(kDefaultPageSize, d.plan.size);
    EXPECT_FALSE(d.has_permission_uid);
    EXPECT_EQ(4u, d.plan.fields.size());
}

TEST(DaemonRequest, MalformedMembersAreBadRequests) {
    const char *bad[] = {
        R"([])",
        R"({})",
        R"({"indice":["a","b"]})",
        R"({"indice":["x"],"from":-1})",
        R"({"indice":["x"],"size":10001})",
        R"({"indice":["x"],"query_string":{"query":5}})",
        R"({"indice":["x"],"filters":[{"name":"owner","data":1}]})",
        R"({"indice":["x"],"filters":[{"name":"permission","data":-1}]})",
        R"({"indice":["x"],"fields":[1]})",
        R"({"indice":["x"],"sorter":[{"field":"a","direction":"up"}]})",
        R"({"indice":["x"],"sorter":[{"field":"a","nature_sort":"yes"}]})",
        R"({"indice":["x"],"highlight":[{"field":"a","frag_length":0}]})",
    };
    for (const char *text : bad) {
        try {
            ParseSearchRequest(Parse(text));
            ADD_FAILURE() << "accepted " << text;
        } catch (const Failure &failure) {
            EXPECT_EQ(kBadRequest, failure.code()) << text;
        }
    }
    EXPECT_THROW(ParseDocumentRequest(Parse(R"({"id":"fileindex_s","doc_id":0})")), Failure);
    EXPECT_THROW(ParseDocumentRequest(Parse(R"({"id":"fileindex_s","doc_id":"3"})")), Failure);
    EXPECT_EQ(3u, ParseDocumentRequest(Parse(R"({"id":"fileindex_s","doc_id":3})")).doc_id);
}

// ---- folder list ----------------------------------------------------------

TEST(DaemonFolders, GroupedByShareWithoutNestedOrMalformedEntries) {
    zarntest::WriteFile("/var/run/folders.json",
                        R"([{"path":"/a/x"},{"path":"/a/x/y"},{"path":"/a/xy"},{"path":"/b/"},)"
                        R"({"path":"/b/c"},{"nopath":1},7,{"path":"/"},{"path":"/c/../d"}])");
    std::map<std::string, std::set<std::string>> shares;
    ASSERT_TRUE(ReadIndexedFolders("/var/run/folders.json", &shares));
    const std::map<std::string, std::set<std::string>> expected = {{"a", {"/a/x", "/a/xy"}},
                                                                   {"b", {"/b"}}};
    EXPECT_EQ(expected, shares);
    zarntest::WriteFile("/var/run/folders.json", "not json");
    EXPECT_FALSE(ReadIndexedFolders("/var/run/folders.json", &shares));
    EXPECT_TRUE(shares.empty());
}

// ---- index writer ---------------------------------------------------------

FileRecord Record(const std::string &path) {
    FileRecord record;
    record.path = path;
    record.fields["ZARNMDPath"] = path;
    return record;
}

TEST(DaemonIndexWriter, DocumentIdsStayWithinASigned32BitInt) {
    mkdir("/var/tmp", 0755);
    char dir[] = "/var/tmp/index.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    {
        // An index whose last id is already the largest a client can hold.
        Xapian::WritableDatabase db(dir, Xapian::DB_CREATE_OR_OPEN);
        Xapian::Document doc;
        doc.add_boolean_term(xap::IdTerm("/s/last"));
        db.replace_document(kMaxDocId, doc);
        db.commit();
    }
    std::unique_ptr<IndexWriter> writer = OpenIndexWriter(dir);
    EXPECT_NO_THROW(writer->Put(Record("/s/last")));
    try {
        writer->Put(Record("/s/new"));
        ADD_FAILURE() << "a new record got an id above the limit";
    } catch (const Failure &failure) {
        EXPECT_EQ(kInternal, failure.code());
    }
    writer->Commit();
    Json::Value fields;
    std::string access;
    EXPECT_TRUE(OpenSearchIndex(dir)->Fetch(kMaxDocId, &fields, &access));
    EXPECT_EQ("/s/last", fields["ZARNMDPath"].asString());
}

}  // namespace
}  // namespace zarnd
