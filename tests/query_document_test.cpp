// ZARNQueryDocumentFieldGet against a scripted daemon: the request, each
// conversion, and every way the call can fail.
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using zarntest::Close;
using zarntest::FakeDaemon;
using zarntest::ReadRequest;
using zarntest::Send;

ZARNQueryDocumentFieldValue Garbage() {
    ZARNQueryDocumentFieldValue record;
    std::memset(&record, 0xAB, sizeof record);
    return record;
}

// Expected records: zeroed, then one member set, as the library leaves them.
ZARNQueryDocumentFieldValue None() {
    ZARNQueryDocumentFieldValue record;
    std::memset(&record, 0, sizeof record);
    return record;
}
template <typename Fill>
ZARNQueryDocumentFieldValue Record(ZARNQueryDocumentFieldType type, Fill fill) {
    auto r = None();
    r.type = type;
    fill(r.value);
    return r;
}
ZARNQueryDocumentFieldValue Int(int64_t v) {
    return Record(DOCUMENT_FIELD_TYPE_INT, [v](auto &u) { u.int_value = v; });
}
ZARNQueryDocumentFieldValue Double(double v) {
    return Record(DOCUMENT_FIELD_TYPE_DOUBLE, [v](auto &u) { u.double_value = v; });
}
ZARNQueryDocumentFieldValue Bool(bool v) {
    return Record(DOCUMENT_FIELD_TYPE_BOOL, [v](auto &u) { u.bool_value = v; });
}
ZARNQueryDocumentFieldValue Str(const std::string &v) {
    return Record(DOCUMENT_FIELD_TYPE_STRING,
                  [&v](auto &u) { std::memcpy(u.string_value, v.data(), v.size()); });
}

void ExpectRecord(const ZARNQueryDocumentFieldValue &want, const ZARNQueryDocumentFieldValue &got) {
    EXPECT_EQ(want.type, got.type);
    EXPECT_EQ(0, std::memcmp(&want, &got, sizeof want)) << "record bytes differ";
}

// Lines of the lookup's own unit, with their priority.
std::vector<zarntest::LogLine> UnitLogs(const std::string &tail) {
    return zarntest::LogsMatching("^query_document_cwrap\\.cpp:[0-9]+ " + tail + "$");
}

// ---- conversions ---------------------------------------------------------

struct Conversion {
    const char *key;
    std::string member;  // JSON text of the member in "data"; empty: absent
    ZARNQueryDocumentFieldValue want;
    std::string mismatch;  // tail of the expected log line; empty: none
};

// Named, so that gtest does not print the records' padding bytes.
void PrintTo(const Conversion &c, std::ostream *os) { *os << c.key << ": " << c.member.substr(0, 40); }

class Converts : public ::testing::TestWithParam<Conversion> {};

TEST_P(Converts, OneField) {
    const Conversion &c = GetParam();
    std::string data = c.member.empty() ? "{}" : "{\"" + std::string(c.key) + "\":" + c.member + "}";
    FakeDaemon daemon({ReadRequest(), Send("{\"success\":true,\"data\":" + data + "}")});
    ZARNQueryDocumentFieldValue got = Garbage();
    ASSERT_EQ(0, ZARNQueryDocumentFieldGet("music", 7, &c.key, 1, &got));
    ExpectRecord(c.want, got);
    if (c.mismatch.empty()) {
        EXPECT_TRUE(zarntest::Logs().empty());
    } else {
        const auto lines = UnitLogs("field type not matched, expect: " + c.mismatch);
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(LOG_ERR, lines[0].priority);
    }
}

const std::string k400(400, 'a');

INSTANTIATE_TEST_SUITE_P(Accepted, Converts, ::testing::Values(
    Conversion{"ZARNMDFSSize", "123", Int(123), ""},
    Conversion{"ZARNMDFSSize", "-2147483648", Int(INT32_MIN), ""},
    Conversion{"ZARNMDFSSize", "2147483647", Int(INT32_MAX), ""},
    Conversion{"ZARNMDFSSize", "12.0", Int(12), ""},
    Conversion{"ZARNMDDurationSecond", "12", Double(12.0), ""},
    Conversion{"ZARNMDDurationSecond", "1.5", Double(1.5), ""},
    Conversion{"ZARNMDDurationSecond", "3000000000", Double(3e9), ""},
    Conversion{"ZARNMDIsDir", "\"y\"", Bool(true), ""},
    Conversion{"ZARNMDIsEncrypted", "\"n\"", Bool(false), ""},
    Conversion{"ZARNMDIsDir", "\"Y\"", Bool(false), ""},
    Conversion{"ZARNMDIsDir", "\"yes\"", Bool(false), ""},
    Conversion{"ZARNMDIsDir", "\"\"", Bool(false), ""},
    Conversion{"_ZARNMDUserTags", "\"red,blue\"", Str("red,blue"), ""},
    Conversion{"ZARNMDTitle", "\"" + k400 + "\"", Str(k400.substr(0, 350)), ""},
    // The cut counts bytes: the two-byte character at the limit is split.
    Conversion{"ZARNMDTitle", "\"" + std::string(349, 'a') + "\xc3\xa9\"",
               Str(std::string(349, 'a') + "\xc3"), ""}));

INSTANTIATE_TEST_SUITE_P(Silent, Converts, ::testing::Values(
    Conversion{"ZARNMDTitle", "null", None(), ""},
    Conversion{"ZARNMDTitle", "", None(), ""},
    Conversion{"ZARNMDFSSize", "null", None(), ""}));

INSTANTIATE_TEST_SUITE_P(Mismatched, Converts, ::testing::Values(
    Conversion{"ZARNMDFSSize", "2147483648", None(), "int, actual: 1"},
    Conversion{"ZARNMDFSSize", "-2147483649", None(), "int, actual: 1"},
    Conversion{"ZARNMDFSSize", "18446744073709551615", None(), "int, actual: 2"},
    Conversion{"ZARNMDFSSize", "12.5", None(), "int, actual: 3"},
    Conversion{"ZARNMDFSSize", "\"12\"", None(), "int, actual: 4"},
    Conversion{"ZARNMDFSSize", "true", None(), "int, actual: 5"},
    Conversion{"ZARNMDDurationSecond", "\"1.5\"", None(), "double, actual: 4"},
    Conversion{"ZARNMDIsDir", "true", None(), "string \\(bool\\), actual: 5"},
    Conversion{"ZARNMDIsDir", "1", None(), "string \\(bool\\), actual: 1"},
    Conversion{"ZARNMDStarRating", "5", None(), "string, actual: 1"},
    Conversion{"ZARNMDTitle", "[\"x\"]", None(), "string, actual: 6"},
    Conversion{"ZARNMDTitle", "{}", None(), "string, actual: 7"}));

// ---- whole calls that succeed ---------------------------------------------

TEST(DocumentFieldGet, SendsOneRequestAndFillsRecordsInKeyOrder) {
    FakeDaemon daemon({ReadRequest(),
                       Send(R"({"success":true,"data":{"ZARNMDTitle":"Song","ZARNMDFSSize":4096}})")});
    const char *keys[] = {"ZARNMDTitle", "ZARNMDBogus", "ZARNMDFSSize", nullptr, "ZARNMDTitle"};
    ZARNQueryDocumentFieldValue got[5] = {Garbage(), Garbage(), Garbage(), Garbage(), Garbage()};
    ASSERT_EQ(0, ZARNQueryDocumentFieldGet("music", 42, keys, 5, got));

    Json::Value want;
    want["command"] = "document_get_by_internal_id";
    want["data"]["id"] = "fileindex_music";
    want["data"]["doc_id"] = 42;
    EXPECT_EQ(want, daemon.Request(0));
    const ZARNQueryDocumentFieldValue expected[5] = {Str("Song"), None(), Int(4096), None(), Str("Song")};
    for (int i = 0; i < 5; ++i) ExpectRecord(expected[i], got[i]);
    EXPECT_EQ(1u, UnitLogs("unknown type of field ZARNMDBogus").size());
    EXPECT_EQ(1u, UnitLogs("unknown type of field \\(null\\)").size());
    EXPECT_EQ(2u, zarntest::Logs().size());
}

// Without fields the reply is still read and judged; values is not touched.
TEST(DocumentFieldGet, NoFieldsStillSendsAndValidates) {
    const struct {
        const char *reply;
        int count;
        int code;
    } cases[] = {{R"({"success":true,"data":{}})", 0, 0},
                 {R"({"success":1,"data":{}})", -3, 0},
                 {R"({"success":false,"data":{}})", 0, ZARN_ERR_FORMAT}};
    for (const auto &c : cases) {
        FakeDaemon daemon({ReadRequest(), Send(c.reply)});
        const ZARNQueryDocumentFieldValue garbage = Garbage();
        ZARNQueryDocumentFieldValue untouched = garbage;
        EXPECT_EQ(c.code, ZARNQueryDocumentFieldGet("music", 1, nullptr, c.count, &untouched)) << c.reply;
        EXPECT_EQ(0, std::memcmp(&untouched, &garbage, sizeof untouched));
        EXPECT_EQ(1u, daemon.WaitFinished(1)[0].requests.size());
    }
}

// ---- failures: every record comes back zeroed ------------------------------

struct Failure {
    const char *name;
    std::vector<zarntest::Step> script;
    int code;
    std::string log;  // expected line of this unit, after "file:line "
    int priority;
};

void PrintTo(const Failure &f, std::ostream *os) { *os << f.name; }

class Fails : public ::testing::TestWithParam<Failure> {};

TEST_P(Fails, WithZeroedRecords) {
    const Failure &f = GetParam();
    FakeDaemon daemon(f.script);
    const char *keys[] = {"ZARNMDTitle", "ZARNMDFSSize"};
    ZARNQueryDocumentFieldValue got[2] = {Garbage(), Garbage()};
    EXPECT_EQ(f.code, ZARNQueryDocumentFieldGet("music", 3, keys, 2, got));
    ExpectRecord(None(), got[0]);
    ExpectRecord(None(), got[1]);
    const auto lines = UnitLogs(f.log);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(f.priority, lines[0].priority);
}

const char kTitled[] = R"("data":{"ZARNMDTitle":"x","ZARNMDFSSize":1})";

INSTANTIATE_TEST_SUITE_P(Reply, Fails, ::testing::Values(
    Failure{"NotJson", {ReadRequest(), Send("not json")}, ZARN_ERR_FORMAT,
            "response format is wrong: not json", LOG_ERR},
    Failure{"NotAnObject", {ReadRequest(), Send("[1,2]")}, ZARN_ERR_FORMAT,
            "response format is wrong: \\[1,2\\]", LOG_ERR},
    Failure{"SuccessFalse", {ReadRequest(), Send(std::string("{\"success\":false,") + kTitled + "}")},
            ZARN_ERR_FORMAT, "response failed: .*\"success\":false.*", LOG_ERR},
    Failure{"SuccessMissing", {ReadRequest(), Send(std::string("{") + kTitled + "}")},
            ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
    Failure{"SuccessString", {ReadRequest(), Send(std::string("{\"success\":\"yes\",") + kTitled + "}")},
            ZARN_ERR_FORMAT, "response failed: .*", LOG_ERR},
    Failure{"DataMissing", {ReadRequest(), Send(R"({"success":true})")}, ZARN_ERR_FORMAT,
            "response failed: .*", LOG_ERR},
    Failure{"DataArray", {ReadRequest(), Send(R"({"success":true,"data":[]})")}, ZARN_ERR_FORMAT,
            "response failed: .*", LOG_ERR},
    Failure{"ClosedWithoutReply", {ReadRequest(), Close()}, ZARN_ERR_READ,
            "Failed to read socket, errno\\([0-9]+\\): .+", LOG_DEBUG}),
    [](const ::testing::TestParamInfo<Failure> &info) { return std::string(info.param.name); });

// Refused calls still open and close a connection, and send nothing.
TEST(DocumentFieldGet, RefusesMissingArgumentsBeforeSending) {
    const char *keys[] = {"ZARNMDTitle"};
    for (const bool null_share : {true, false}) {
        FakeDaemon daemon({ReadRequest()});
        ZARNQueryDocumentFieldValue got = Garbage();
        const int code = null_share ? ZARNQueryDocumentFieldGet(nullptr, 1, keys, 1, &got)
                                    : ZARNQueryDocumentFieldGet("music", 1, keys, 1, nullptr);
        EXPECT_EQ(ZARN_ERR_INVALID, code);
        const auto seen = daemon.WaitFinished(1);
        ASSERT_EQ(1u, seen.size());
        EXPECT_TRUE(seen[0].requests.empty());
        if (null_share) ExpectRecord(None(), got);
    }
    EXPECT_TRUE(UnitLogs(".*").empty());
}

TEST(DocumentFieldGet, WithoutDaemonTheWriteFails) {
    const char *keys[] = {"ZARNMDTitle"};
    ZARNQueryDocumentFieldValue got = Garbage();
    EXPECT_EQ(ZARN_ERR_WRITE, ZARNQueryDocumentFieldGet("music", 1, keys, 1, &got));
    ExpectRecord(None(), got);
    EXPECT_TRUE(UnitLogs(".*").empty());
}

}  // namespace
