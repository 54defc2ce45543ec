// Search result records built from hit packets, and the rewrite that
// completes every search request.  Both are static members of the connection
// class, exported, and need no daemon.  Leaks show under valgrind and ASan.
#include <syslog.h>

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;

namespace {

Json::Value Parse(const std::string &text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

// Compact text, members in key order: compares values across JsonCpp's
// signed and unsigned integers, which operator== tells apart.
std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

struct RecordFree {
    void operator()(_tag_search_record *record) const { Connection::FreeRecord(record); }
};
using Record = std::unique_ptr<_tag_search_record, RecordFree>;

Record Build(const Json::Value &hit) { return Record(Connection::BuildRecordFromJson(hit)); }
Record BuildText(const std::string &text) { return Build(Parse(text)); }

size_t DocIdWarnings() {
    return zarntest::LogsMatching("^connection\\.cpp:[0-9]+ doc_id is not attached to search result$")
        .size();
}

TEST(BuildRecord, PlainHit) {
    zarntest::ClearLogs();
    Record r = BuildText(
        R"({"ZARNMDPath":"/music/a.mp3","ZARNMDFSName":"a.mp3","ZARNMDExtension":"mp3",)"
        R"("ZARNMDIsDir":"n","additional":{"doc_id":42}})");
    EXPECT_STREQ(r->path, "/music/a.mp3");
    EXPECT_STREQ(r->fs_name, "a.mp3");
    EXPECT_STREQ(r->extension, "mp3");
    EXPECT_EQ(r->is_dir, 0);
    EXPECT_EQ(r->doc_id, 42);
    EXPECT_EQ(r->highlight, nullptr);
    EXPECT_TRUE(zarntest::Logs().empty());
}

TEST(BuildRecord, IsDirOnlyForExactlyY) {
    const struct {
        const char *member;  // JSON text of "ZARNMDIsDir", null for absent
        int is_dir;
    } cases[] = {{R"("y")", 1},  {R"("Y")", 0}, {R"("yes")", 0}, {R"("n")", 0},   {"true", 0},
                 {"1", 0},       {"null", 0},   {R"({"y":1})", 0}, {R"(["y"])", 0}, {nullptr, 0}};
    for (const auto &c : cases) {
        const std::string text = c.member == nullptr
                                     ? std::string(R"({"additional":{"doc_id":1}})")
                                     : R"({"ZARNMDIsDir":)" + std::string(c.member) + "}";
        EXPECT_EQ(BuildText(text)->is_dir, c.is_dir) << text;
    }
}

TEST(BuildRecord, DocIdOnlyFromAnInt32) {
    const struct {
        const char *additional;  // JSON text of "additional", null for absent
        int doc_id;
        bool warned;
    } cases[] = {
        {R"({"doc_id":42})", 42, false},
        {R"({"doc_id":-7})", -7, false},
        {R"({"doc_id":2147483647})", 2147483647, false},
        {R"({"doc_id":-2147483648})", -2147483647 - 1, false},
        {R"({"doc_id":2147483648})", 0, true},
        {R"({"doc_id":-2147483649})", 0, true},
        {R"({"doc_id":18446744073709551615})", 0, true},
        {R"({"doc_id":1.5})", 0, true},
        {R"({"doc_id":"42"})", 0, true},
        {R"({"doc_id":null})", 0, true},
        {R"({"doc_id":[42]})", 0, true},
        {R"({})", 0, true},
        {R"([42])", 0, true},
        {R"(42)", 0, true},
        {nullptr, 0, true},
    };
    for (const auto &c : cases) {
        zarntest::ClearLogs();
        const std::string text = c.additional == nullptr
                                     ? std::string("{}")
                                     : R"({"additional":)" + std::string(c.additional) + "}";
        EXPECT_EQ(BuildText(text)->doc_id, c.doc_id) << text;
        EXPECT_EQ(DocIdWarnings(), c.warned ? 1u : 0u) << text;
        if (c.warned) {
            EXPECT_EQ(zarntest::Logs().at(0).priority, LOG_WARNING);
        }
    }
}

TEST(BuildRecord, TextsAreCutByBytes) {
    const struct {
        const char *member;
        size_t given, kept;
    } cases[] = {
        {"ZARNMDPath", 5000, 4095},     {"ZARNMDPath", 4095, 4095}, {"ZARNMDFSName", 4096, 4095},
        {"ZARNMDExtension", 20, 15},    {"ZARNMDExtension", 15, 15},
    };
    for (const auto &c : cases) {
        Json::Value hit;
        hit[c.member] = std::string(c.given - 1, 'x') + "\xC3";  // a byte of a cut character
        Record r = Build(hit);
        const char *text = std::string(c.member) == "ZARNMDPath"     ? r->path
                           : std::string(c.member) == "ZARNMDFSName" ? r->fs_name
                                                                      : r->extension;
        EXPECT_EQ(std::strlen(text), c.kept) << c.member << " " << c.given;
    }
    Json::Value hit;
    hit["highlight"]["ZARNMDTextContent"] = std::string(400, 'h');
    EXPECT_EQ(std::strlen(Build(hit)->highlight), 349u);
}

TEST(BuildRecord, HighlightNullOrEmpty) {
    const struct {
        const char *highlight;  // JSON text of "highlight", null for absent
        const char *expected;   // null: no highlight array
    } cases[] = {
        {nullptr, nullptr},
        {R"("<b>x</b>")", nullptr},
        {R"([{"ZARNMDTextContent":"x"}])", nullptr},
        {R"({})", ""},
        {R"({"ZARNMDTextContent":"a <b>hit</b>"})", "a <b>hit</b>"},
        {R"({"ZARNMDTextContent":7})", ""},
        {R"({"ZARNMDTextContent":["a"]})", ""},
    };
    for (const auto &c : cases) {
        const std::string text = c.highlight == nullptr
                                     ? std::string("{}")
                                     : R"({"highlight":)" + std::string(c.highlight) + "}";
        Record r = BuildText(text);
        if (c.expected == nullptr) {
            EXPECT_EQ(r->highlight, nullptr) << text;
        } else {
            ASSERT_NE(r->highlight, nullptr) << text;
            EXPECT_STREQ(r->highlight, c.expected) << text;
        }
    }
}

TEST(BuildRecord, TextMembersOfAnotherTypeGiveEmptyTexts) {
    for (const char *odd : {"7", "true", "null", R"({"a":"b"})", R"(["a"])"}) {
        const std::string v(odd);
        Record r = BuildText(R"({"ZARNMDPath":)" + v + R"(,"ZARNMDFSName":)" + v +
                         R"(,"ZARNMDExtension":)" + v + R"(,"ZARNMDIsDir":)" + v + "}");
        EXPECT_STREQ(r->path, "") << odd;
        EXPECT_STREQ(r->fs_name, "") << odd;
        EXPECT_STREQ(r->extension, "") << odd;
        EXPECT_EQ(r->is_dir, 0) << odd;
    }
}

TEST(BuildRecord, AValueThatIsNotAnObjectGivesAnEmptyRecord) {
    for (const char *odd : {"[1,2]", "\"text\"", "null"}) {
        Record r = Build(Parse(odd));
        EXPECT_STREQ(r->path, "");
        EXPECT_EQ(r->doc_id, 0);
        EXPECT_EQ(r->highlight, nullptr);
    }
}

TEST(FreeRecord, AcceptsNullAndARecordWithoutHighlight) {
    Connection::FreeRecord(nullptr);
    ZARNQueryFreeRecord(nullptr);
    ZARNQueryFreeRecord(Connection::BuildRecordFromJson(Parse(R"({"additional":{"doc_id":1}})")));
}

// ---- the rewrite -----------------------------------------------------------

Json::Value Envelope() {
    return Parse(R"({"command":"search","data":{"from":0,"size":20,"indice":["fileindex_music"],)"
                 R"("query_string":{"query":"q"}}})");
}

Json::Value Rewrite(const Json::Value &request, ZARNQuerySorter *sorters = nullptr, int count = 0,
                    ConnectionFlag flags = CONNECTION_FLAG_NONE) {
    return Connection::RewriteSearchQuery(request, 1026, "finder", sorters, count, flags);
}

TEST(Rewrite, PlainSearchExactly) {
    EXPECT_EQ(Text(Rewrite(Envelope())),
              Text(Parse(R"({"command":"search","data":{"from":0,"size":20,)"
                    R"("indice":["fileindex_music"],"query_string":{"query":"q"},)"
                    R"("filters":[{"name":"permission","data":1026}],)"
                    R"("collector":{"agent":"finder","uid":1026},)"
                    R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"]}})")));
}

TEST(Rewrite, OnlyBitZeroOfTheFlagAsksForHighlight) {
    const Json::Value highlight = Parse(R"([{"field":"ZARNMDTextContent","frag_length":350}])");
    for (unsigned bits : {0u, 1u, 2u, 3u}) {
        const Json::Value data =
            Rewrite(Envelope(), nullptr, 0, static_cast<ConnectionFlag>(bits))["data"];
        const bool on = (bits & 1u) != 0;
        EXPECT_EQ(data["fields"].size(), on ? 5u : 4u) << bits;
        EXPECT_EQ(data["fields"][3].asString(), "ZARNMDIsDir");
        if (on) {
            EXPECT_EQ(data["fields"][4].asString(), "ZARNMDTextContent");
            EXPECT_EQ(data["highlight"], highlight);
        } else {
            EXPECT_FALSE(data.isMember("highlight")) << bits;
        }
    }
}

TEST(Rewrite, SortKeysFromTheirOptions) {
    const struct {
        uint32_t options;
        const char *direction;
        bool nature_sort;
    } cases[] = {{0, "asc", false}, {1, "desc", false}, {2, "asc", true},
                 {3, "desc", true}, {4, "asc", false},  {0xFFFFFFFC, "asc", false}};
    for (const auto &c : cases) {
        ZARNQuerySorter sorter = {c.options, "ZARNMDPath"};
        const Json::Value sorters = Rewrite(Envelope(), &sorter, 1)["data"]["sorter"];
        ASSERT_EQ(sorters.size(), 1u);
        EXPECT_EQ(sorters[0]["field"].asString(), "ZARNMDPath");
        EXPECT_EQ(sorters[0]["direction"].asString(), c.direction) << c.options;
        EXPECT_EQ(sorters[0].isMember("nature_sort"), c.nature_sort) << c.options;
        if (c.nature_sort) {
            EXPECT_TRUE(sorters[0]["nature_sort"].asBool());
        }
    }
}

TEST(Rewrite, NoSortKeysReadForACountOfZeroOrLess) {
    for (int count : {0, -1, -100}) EXPECT_FALSE(Rewrite(Envelope(), nullptr, count)["data"].isMember("sorter"));
}

TEST(Rewrite, KeepsWhatItDoesNotName) {
    Json::Value request = Envelope();
    request["extra"] = "kept";
    request["data"]["filters"] = Parse(R"([{"name":"x","data":1,"keep":true},{"name":"y"}])");
    request["data"]["collector"]["note"] = 5;
    request["data"]["fields"] = Parse(R"(["ZARNMDPath","Other"])");
    request["data"]["sorter"] = Parse(R"([{"nature_sort":true,"field":"old"},{"field":"second"}])");
    const Json::Value before = request;
    ZARNQuerySorter sorter = {0, "new"};

    const Json::Value out = Rewrite(request, &sorter, 1);
    EXPECT_EQ(request, before);
    EXPECT_EQ(out["extra"].asString(), "kept");
    EXPECT_EQ(Text(out["data"]["filters"]),
              R"([{"data":1026,"keep":true,"name":"permission"},{"name":"y"}])");
    EXPECT_EQ(Text(out["data"]["collector"]), R"({"agent":"finder","note":5,"uid":1026})");
    EXPECT_EQ(out["data"]["fields"].size(), 4u);
    EXPECT_EQ(Text(out["data"]["sorter"]),
              R"([{"direction":"asc","field":"new","nature_sort":true},{"field":"second"}])");
}

TEST(Rewrite, TwiceGivesTheSameRequest) {
    ZARNQuerySorter sorters[] = {{3, "a"}, {0, "b"}};
    for (ConnectionFlag flags : {CONNECTION_FLAG_NONE, CONNECTION_FLAG_HIGHLIGHT}) {
        const Json::Value once = Rewrite(Envelope(), sorters, 2, flags);
        EXPECT_EQ(Rewrite(once, sorters, 2, flags), once);
    }
}

TEST(Rewrite, LargeUidStaysUnsigned) {
    for (unsigned uid : {2147483648u, 4294967295u}) {
        const Json::Value data =
            Connection::RewriteSearchQuery(Envelope(), uid, "", nullptr, 0, CONNECTION_FLAG_NONE)["data"];
        for (const Json::Value &v : {data["filters"][0]["data"], data["collector"]["uid"]}) {
            EXPECT_TRUE(v.isUInt());
            EXPECT_EQ(v.asUInt(), uid);
            EXPECT_EQ(v.toStyledString(), std::to_string(uid) + "\n");
        }
    }
}

TEST(Rewrite, NullAgentIsRefusedWithAnException) {
    EXPECT_THROW(Connection::RewriteSearchQuery(Envelope(), 1, nullptr, nullptr, 0, CONNECTION_FLAG_NONE),
                 std::exception);
}

}  // namespace
