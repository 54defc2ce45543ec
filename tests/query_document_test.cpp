// ZARNQueryDocumentFieldGet against a scripted daemon: the request, each
// conversion, and every way the call can fail.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using zarntest::ReadRequest;
using zarntest::Send;
using Value = ZARNQueryDocumentFieldValue;

Value Garbage() { Value r; std::memset(&r, 0xAB, sizeof r); return r; }
// Expected records: zeroed, then one member set, as the library leaves them.
Value Rec(int type) { Value r; std::memset(&r, 0, sizeof r); r.type = ZARNQueryDocumentFieldType(type); return r; }
const Value kNone = Rec(0);
Value Int(int64_t v) { Value r = Rec(DOCUMENT_FIELD_TYPE_INT); r.value.int_value = v; return r; }
Value Dbl(double v) { Value r = Rec(DOCUMENT_FIELD_TYPE_DOUBLE); r.value.double_value = v; return r; }
Value Bool(bool v) { Value r = Rec(DOCUMENT_FIELD_TYPE_BOOL); r.value.bool_value = v; return r; }
Value Str(const std::string &v) {
    Value r = Rec(DOCUMENT_FIELD_TYPE_STRING);
    std::memcpy(r.value.string_value, v.data(), v.size());
    return r;
}

#define EXPECT_RECORD(want, got) EXPECT_EQ(0, std::memcmp(&(want), &(got), sizeof(Value))) << (got).type

// Lines of the lookup's own unit.
std::vector<zarntest::LogLine> UnitLogs(const std::string &tail) {
    return zarntest::LogsMatching("^query_document_cwrap\\.cpp:[0-9]+ " + tail + "$");
}

// One key per call.  A member of the wrong JSON type is logged with its type
// number and leaves the record zeroed; null or absent is silent.  Strings are
// cut at 350 bytes, splitting a two-byte character at the limit.
std::string Data(const std::string &key, const std::string &member) {
    return R"({"success":true,"data":{)" + (member.empty() ? "" : "\"" + key + "\":" + member) + "}}";
}
std::string Mismatch(const std::string &types) { return "field type not matched, expect: " + types; }

TEST(DocumentFieldGet, ConvertsOrFails) {
    const std::string a400(400, 'a'), a349(349, 'a'), titled = R"("data":{"ZARNMDTitle":"x"})";
    const char *size = "ZARNMDFSSize", *secs = "ZARNMDDurationSecond", *dir = "ZARNMDIsDir", *title = "ZARNMDTitle";
    const struct { const char *key; std::string reply; Value want; std::string log; int code = 0, priority = LOG_ERR; } cases[] = {
        {size, Data(size, "123"), Int(123), ""}, {size, Data(size, "2147483647"), Int(INT32_MAX), ""},
        {size, Data(size, "-2147483648"), Int(INT32_MIN), ""}, {size, Data(size, "12.0"), Int(12), ""},
        {secs, Data(secs, "12"), Dbl(12.0), ""}, {secs, Data(secs, "1.5"), Dbl(1.5), ""},
        {dir, Data(dir, "\"y\""), Bool(true), ""}, {"ZARNMDIsEncrypted", Data("ZARNMDIsEncrypted", "\"n\""), Bool(false), ""},
        {dir, Data(dir, "\"Y\""), Bool(false), ""}, {dir, Data(dir, "\"yes\""), Bool(false), ""},
        {"_ZARNMDUserTags", Data("_ZARNMDUserTags", "\"red,blue\""), Str("red,blue"), ""},
        {title, Data(title, "\"" + a400 + "\""), Str(a400.substr(0, 350)), ""},
        {title, Data(title, "\"" + a349 + "\xc3\xa9\""), Str(a349 + "\xc3"), ""},
        {title, Data(title, "null"), kNone, ""}, {title, Data(title, ""), kNone, ""}, {size, Data(size, "null"), kNone, ""},
        {size, Data(size, "2147483648"), kNone, Mismatch("int, actual: 1")},
        {size, Data(size, "-2147483649"), kNone, Mismatch("int, actual: 1")},
        {size, Data(size, "18446744073709551615"), kNone, Mismatch("int, actual: 2")},
        {size, Data(size, "12.5"), kNone, Mismatch("int, actual: 3")}, {size, Data(size, "\"12\""), kNone, Mismatch("int, actual: 4")},
        {size, Data(size, "true"), kNone, Mismatch("int, actual: 5")},
        {secs, Data(secs, "\"1.5\""), kNone, Mismatch("double, actual: 4")},
        {dir, Data(dir, "true"), kNone, Mismatch("string \\(bool\\), actual: 5")},
        {dir, Data(dir, "1"), kNone, Mismatch("string \\(bool\\), actual: 1")},
        {"ZARNMDStarRating", Data("ZARNMDStarRating", "5"), kNone, Mismatch("string, actual: 1")},
        {title, Data(title, "[\"x\"]"), kNone, Mismatch("string, actual: 6")},
        {title, Data(title, "{}"), kNone, Mismatch("string, actual: 7")},
        // Failures: the record comes back zeroed.
        {title, "not json", kNone, "response format is wrong: not json", ZARN_ERR_FORMAT},
        {title, "[1,2]", kNone, "response format is wrong: \\[1,2\\]", ZARN_ERR_FORMAT},
        {title, "{\"success\":false," + titled + "}", kNone, "response failed: \\{\"success\":false,\"data\".*", ZARN_ERR_FORMAT},
        {title, "{" + titled + "}", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, "{\"success\":\"yes\"," + titled + "}", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, R"({"success":true})", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, R"({"success":true,"data":[]})", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, "", kNone, "Failed to read socket, errno\\([0-9]+\\): .+", ZARN_ERR_READ, LOG_DEBUG},  // closed
        // No fields (a negative count is none): the reply is still read and
        // judged, and the values are not touched.
        {nullptr, R"({"success":false,"data":{}})", Garbage(), "response failed: .*", ZARN_ERR_FORMAT},
        {nullptr, R"({"success":1,"data":{}})", Garbage(), ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reply.substr(0, 60));
        zarntest::ClearLogs();
        zarntest::FakeDaemon daemon({ReadRequest(), c.reply.empty() ? zarntest::Close() : Send(c.reply)});
        Value got = Garbage();
        EXPECT_EQ(c.code, ZARNQueryDocumentFieldGet("music", 7, &c.key, c.key ? 1 : -3, &got));
        EXPECT_RECORD(c.want, got);
        EXPECT_EQ(1u, daemon.WaitFinished(1)[0].requests.size());
        const auto lines = UnitLogs(c.log);
        EXPECT_EQ(c.log.empty() ? 0u : 1u, lines.size());
        EXPECT_EQ(lines.size(), zarntest::Logs().size());
        for (const auto &line : lines) EXPECT_EQ(c.priority, line.priority);
    }
}

// One request; records in key order.  Keys match exactly: an unknown or null
// key is logged and gets type 0.
TEST(DocumentFieldGet, SendsOneRequestAndFillsRecordsInKeyOrder) {
    zarntest::FakeDaemon daemon({ReadRequest(), Send(R"({"success":true,"data":{"ZARNMDTitle":"Song",
        "ZARNMDFSSize":4096,"zarnmdtitle":"x","ZARNMDTitl":"x","ZARNMDTitle ":"x","ZARNMDUserTags":"x"}})")});
    const char *keys[] = {"ZARNMDTitle", "zarnmdtitle", "ZARNMDFSSize", nullptr, "ZARNMDTitl",
                          "ZARNMDTitle ", "ZARNMDUserTags", "ZARNMDTitle"};
    Value got[8], garbage = Garbage();
    std::fill(got, got + 8, garbage);
    ASSERT_EQ(0, ZARNQueryDocumentFieldGet("music", 42, keys, 8, got));
    EXPECT_EQ(R"({"command":"document_get_by_internal_id","data":{"doc_id":42,"id":"fileindex_music"}})",
              daemon.WaitFinished(1)[0].requests.at(0));
    const Value expected[8] = {Str("Song"), kNone, Int(4096), kNone, kNone, kNone, kNone, Str("Song")};
    for (int i = 0; i < 8; ++i) EXPECT_RECORD(expected[i], got[i]);
    for (const char *key : {"zarnmdtitle", "\\(null\\)", "ZARNMDTitl", "ZARNMDTitle ", "ZARNMDUserTags"})
        EXPECT_EQ(1u, UnitLogs(std::string("unknown type of field ") + key).size()) << key;
    EXPECT_EQ(5u, zarntest::Logs().size());
}

// Refused calls still open and close a connection, send nothing, log nothing.
TEST(DocumentFieldGet, RefusesMissingArguments) {
    const char *keys[] = {"ZARNMDTitle"};
    for (int refusal = 0; refusal < 3; ++refusal) {
        zarntest::FakeDaemon daemon({ReadRequest()});
        Value got = Garbage();
        EXPECT_EQ(ZARN_ERR_INVALID, ZARNQueryDocumentFieldGet(refusal == 0 ? nullptr : "music", 1,
                                                              refusal == 1 ? nullptr : keys, 1, refusal == 2 ? nullptr : &got));
        const auto seen = daemon.WaitClosed(1, std::chrono::seconds(5)).at(0);  // an unclosed handle shows here
        EXPECT_TRUE(seen.requests.empty() && seen.peer_closed);
        if (refusal == 0) { EXPECT_RECORD(kNone, got); }
    }
    EXPECT_TRUE(UnitLogs(".*").empty());
}

}  // namespace
