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

Value Garbage() {
    Value record;
    std::memset(&record, 0xAB, sizeof record);
    return record;
}

// Expected records: zeroed, then one member set, as the library leaves them.
Value Make(int type, int64_t i, double d = 0, const std::string &s = "") {
    Value r;
    std::memset(&r, 0, sizeof r);
    r.type = ZARNQueryDocumentFieldType(type);
    if (type == DOCUMENT_FIELD_TYPE_INT) r.value.int_value = i;
    if (type == DOCUMENT_FIELD_TYPE_DOUBLE) r.value.double_value = d;
    if (type == DOCUMENT_FIELD_TYPE_BOOL) r.value.bool_value = i != 0;
    if (type == DOCUMENT_FIELD_TYPE_STRING) std::memcpy(r.value.string_value, s.data(), s.size());
    return r;
}
const Value kNone = Make(0, 0);
Value Int(int64_t v) { return Make(DOCUMENT_FIELD_TYPE_INT, v); }
Value Dbl(double v) { return Make(DOCUMENT_FIELD_TYPE_DOUBLE, 0, v); }
Value Bool(bool v) { return Make(DOCUMENT_FIELD_TYPE_BOOL, v); }
Value Str(const std::string &v) { return Make(DOCUMENT_FIELD_TYPE_STRING, 0, 0, v); }

#define EXPECT_RECORD(want, got) EXPECT_EQ(0, std::memcmp(&(want), &(got), sizeof(Value))) << (got).type

// Lines of the lookup's own unit.
std::vector<zarntest::LogLine> UnitLogs(const std::string &tail) {
    return zarntest::LogsMatching("^query_document_cwrap\\.cpp:[0-9]+ " + tail + "$");
}

// A member of the wrong JSON type is logged with its type number and leaves
// the record zeroed; null or absent ("") is silent.  Strings are cut at 350
// bytes, splitting a two-byte character at the limit.
TEST(DocumentFieldGet, ConvertsEachType) {
    const std::string a400(400, 'a'), a349(349, 'a');
    const struct { const char *key; std::string member; Value want; std::string mismatch; } cases[] = {
        {"ZARNMDFSSize", "123", Int(123), ""}, {"ZARNMDFSSize", "2147483647", Int(INT32_MAX), ""},
        {"ZARNMDFSSize", "-2147483648", Int(INT32_MIN), ""}, {"ZARNMDFSSize", "12.0", Int(12), ""},
        {"ZARNMDDurationSecond", "12", Dbl(12.0), ""}, {"ZARNMDDurationSecond", "1.5", Dbl(1.5), ""},
        {"ZARNMDIsDir", "\"y\"", Bool(true), ""}, {"ZARNMDIsEncrypted", "\"n\"", Bool(false), ""},
        {"ZARNMDIsDir", "\"Y\"", Bool(false), ""}, {"ZARNMDIsDir", "\"yes\"", Bool(false), ""},
        {"_ZARNMDUserTags", "\"red,blue\"", Str("red,blue"), ""},
        {"ZARNMDTitle", "\"" + a400 + "\"", Str(a400.substr(0, 350)), ""},
        {"ZARNMDTitle", "\"" + a349 + "\xc3\xa9\"", Str(a349 + "\xc3"), ""},
        {"ZARNMDTitle", "null", kNone, ""}, {"ZARNMDTitle", "", kNone, ""}, {"ZARNMDFSSize", "null", kNone, ""},
        {"ZARNMDFSSize", "2147483648", kNone, "int, actual: 1"}, {"ZARNMDFSSize", "-2147483649", kNone, "int, actual: 1"},
        {"ZARNMDFSSize", "18446744073709551615", kNone, "int, actual: 2"}, {"ZARNMDFSSize", "12.5", kNone, "int, actual: 3"},
        {"ZARNMDFSSize", "\"12\"", kNone, "int, actual: 4"}, {"ZARNMDFSSize", "true", kNone, "int, actual: 5"},
        {"ZARNMDDurationSecond", "\"1.5\"", kNone, "double, actual: 4"},
        {"ZARNMDIsDir", "true", kNone, "string \\(bool\\), actual: 5"},
        {"ZARNMDIsDir", "1", kNone, "string \\(bool\\), actual: 1"}, {"ZARNMDStarRating", "5", kNone, "string, actual: 1"},
        {"ZARNMDTitle", "[\"x\"]", kNone, "string, actual: 6"}, {"ZARNMDTitle", "{}", kNone, "string, actual: 7"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.key) + ": " + c.member.substr(0, 20));
        zarntest::ClearLogs();
        const std::string data = c.member.empty() ? "{}" : "{\"" + std::string(c.key) + "\":" + c.member + "}";
        zarntest::FakeDaemon daemon({ReadRequest(), Send("{\"success\":true,\"data\":" + data + "}")});
        Value got = Garbage();
        ASSERT_EQ(0, ZARNQueryDocumentFieldGet("music", 7, &c.key, 1, &got));
        EXPECT_RECORD(c.want, got);
        const auto lines = UnitLogs("field type not matched, expect: " + c.mismatch);
        EXPECT_EQ(c.mismatch.empty() ? 0u : 1u, lines.size());
        EXPECT_EQ(lines.size(), zarntest::Logs().size());
        for (const auto &line : lines) EXPECT_EQ(LOG_ERR, line.priority);
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

// Every failure hands back zeroed records and logs one line of this unit;
// without fields the reply is still read and judged, and values untouched.
TEST(DocumentFieldGet, JudgesTheReply) {
    const std::string titled = R"("data":{"ZARNMDTitle":"x","ZARNMDFSSize":1})";
    const struct { std::vector<zarntest::Step> script; int count, code; std::string log; int priority; } cases[] = {
        {{ReadRequest(), Send("not json")}, 2, ZARN_ERR_FORMAT, "response format is wrong: not json", LOG_ERR},
        {{ReadRequest(), Send("[1,2]")}, 2, ZARN_ERR_FORMAT, "response format is wrong: \\[1,2\\]", LOG_ERR},
        {{ReadRequest(), Send("{\"success\":false," + titled + "}")}, 2, ZARN_ERR_FORMAT,
         "response failed: \\{\"success\":false,\"data\".*", LOG_ERR},
        {{ReadRequest(), Send("{" + titled + "}")}, 2, ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
        {{ReadRequest(), Send("{\"success\":\"yes\"," + titled + "}")}, 2, ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
        {{ReadRequest(), Send(R"({"success":true})")}, 2, ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
        {{ReadRequest(), Send(R"({"success":true,"data":[]})")}, 2, ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
        {{ReadRequest(), zarntest::Close()}, 2, ZARN_ERR_READ, "Failed to read socket, errno\\([0-9]+\\): .+", LOG_DEBUG},
        {{ReadRequest(), Send(R"({"success":false,"data":{}})")}, 0, ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
        {{ReadRequest(), Send(R"({"success":true,"data":{}})")}, 0, 0, "", 0},
        {{ReadRequest(), Send(R"({"success":1,"data":{}})")}, -3, 0, "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log + " " + std::to_string(c.count));
        zarntest::ClearLogs();
        zarntest::FakeDaemon daemon(c.script);
        const char *keys[] = {"ZARNMDTitle", "ZARNMDFSSize"};
        Value got[2] = {Garbage(), Garbage()};
        EXPECT_EQ(c.code, ZARNQueryDocumentFieldGet("music", 3, c.count > 0 ? keys : nullptr, c.count, got));
        const Value want = c.count > 0 ? kNone : Garbage();
        for (const Value &record : got) EXPECT_RECORD(want, record);
        EXPECT_EQ(1u, daemon.WaitFinished(1)[0].requests.size());
        const auto lines = UnitLogs(c.log);
        EXPECT_EQ(c.log.empty() ? 0u : 1u, lines.size());
        EXPECT_EQ(lines.size(), zarntest::Logs().size());
        for (const auto &line : lines) EXPECT_EQ(c.priority, line.priority);
    }
}

// Refused calls still open and close a connection, and send nothing; without
// a daemon the write fails.  None of them logs.
TEST(DocumentFieldGet, RefusedAndUnsentCalls) {
    const char *keys[] = {"ZARNMDTitle"};
    for (int refusal = 0; refusal < 3; ++refusal) {
        zarntest::FakeDaemon daemon({ReadRequest()});
        Value got = Garbage();
        EXPECT_EQ(ZARN_ERR_INVALID, ZARNQueryDocumentFieldGet(refusal == 0 ? nullptr : "music", 1,
                                                              refusal == 1 ? nullptr : keys, 1, refusal == 2 ? nullptr : &got));
        EXPECT_TRUE(daemon.WaitFinished(1).at(0).requests.empty());
        if (refusal == 0) { EXPECT_RECORD(kNone, got); }
    }
    Value got = Garbage();
    EXPECT_EQ(ZARN_ERR_WRITE, ZARNQueryDocumentFieldGet("music", 1, keys, 1, &got));
    EXPECT_RECORD(kNone, got);
    EXPECT_TRUE(UnitLogs(".*").empty());
}

}  // namespace
