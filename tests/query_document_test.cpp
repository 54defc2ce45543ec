// ZARNQueryDocumentFieldGet against a scripted daemon: the request, each
// conversion, and every way the call can fail.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using Value = ZARNQueryDocumentFieldValue;

// Expected records: zeroed, then one member set, as the library leaves them.
Value Rec(int type, char fill = 0) { Value r; std::memset(&r, fill, sizeof r); if (!fill) r.type = ZARNQueryDocumentFieldType(type); return r; }
const Value kNone = Rec(0), kGarbage = Rec(0, char(0xAB));
Value Int(int64_t v) { Value r = Rec(DOCUMENT_FIELD_TYPE_INT); r.value.int_value = v; return r; }
Value Dbl(double v) { Value r = Rec(DOCUMENT_FIELD_TYPE_DOUBLE); r.value.double_value = v; return r; }
Value Bool(bool v) { Value r = Rec(DOCUMENT_FIELD_TYPE_BOOL); r.value.bool_value = v; return r; }
Value Str(const std::string &v) { Value r = Rec(DOCUMENT_FIELD_TYPE_STRING); std::memcpy(r.value.string_value, v.data(), v.size()); return r; }
#define EXPECT_RECORD(want, got) EXPECT_EQ(0, std::memcmp(&(want), &(got), sizeof(Value))) << (got).type
auto UnitLogs(const std::string &tail) { return zarntest::LogsMatching("^query_document_cwrap\\.cpp:[0-9]+ " + tail + "$"); }

// One key per call (the real daemon's tests show several in order); a row
// that succeeds with a key gives the member's text ("": absent), any other
// row the whole reply.  Keys match exactly: an unknown or null key is logged.  A member of the wrong JSON
// type is logged with its type number and leaves the record zeroed; null or
// absent is silent.  Strings are cut at 350 bytes, splitting a character.
TEST(DocumentFieldGet, ConvertsOrFails) {
    const std::string a400(400, 'a'), a349(349, 'a');
    const auto mismatch = [](const std::string &types) { return "field type not matched, expect: " + types; };
    const char *size = "ZARNMDFSSize", *secs = "ZARNMDDurationSecond", *dir = "ZARNMDIsDir", *title = "ZARNMDTitle",
               *none = "no fields";
    const struct { const char *key; std::string reply; Value want; std::string log; int code = 0, priority = LOG_ERR; } cases[] = {
        {size, "2147483647", Int(INT32_MAX), ""}, {size, "-2147483648", Int(INT32_MIN), ""}, {size, "12.0", Int(12), ""},
        {secs, "12", Dbl(12.0), ""}, {secs, "1.5", Dbl(1.5), ""}, {dir, "\"y\"", Bool(true), ""},
        {dir, "\"Y\"", Bool(false), ""}, {dir, "\"yes\"", Bool(false), ""}, {dir, "\"n\"", Bool(false), ""},
        {"_ZARNMDUserTags", "\"red,blue\"", Str("red,blue"), ""}, {title, "\"" + a400 + "\"", Str(a400.substr(0, 350)), ""},
        {title, "\"" + a349 + "\xc3\xa9\"", Str(a349 + "\xc3"), ""}, {title, "null", kNone, ""}, {title, "", kNone, ""},
        {size, "2147483648", kNone, mismatch("int, actual: 1")}, {size, "-2147483649", kNone, mismatch("int, actual: 1")},
        {size, "18446744073709551615", kNone, mismatch("int, actual: 2")}, {size, "12.5", kNone, mismatch("int, actual: 3")},
        {size, "\"12\"", kNone, mismatch("int, actual: 4")}, {secs, "\"1.5\"", kNone, mismatch("double, actual: 4")},
        {dir, "true", kNone, mismatch("string \\(bool\\), actual: 5")}, {title, "{}", kNone, mismatch("string, actual: 7")},
        {"ZARNMDStarRating", "5", kNone, mismatch("string, actual: 1")}, {nullptr, "1", kNone, "unknown type of field \\(null\\)"},
        {"zarnmdtitle", "\"x\"", kNone, "unknown type of field zarnmdtitle"}, {"ZARNMDTitl", "1", kNone, "unknown type of field ZARNMDTitl"},
        {"ZARNMDTitle ", "\"x\"", kNone, "unknown type of field ZARNMDTitle "},
        // Failures: the record comes back zeroed.
        {title, "not json", kNone, "response format is wrong: not json", ZARN_ERR_FORMAT},
        {title, "[1,2]", kNone, "response format is wrong: \\[1,2\\]", ZARN_ERR_FORMAT},
        {title, R"({"success":false,"data":{"ZARNMDTitle":"x"}})", kNone, "response failed: \\{\"success\":false,.*", ZARN_ERR_FORMAT},
        {title, R"({"data":{"ZARNMDTitle":"x"}})", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, R"({"success":"yes","data":{}})", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, R"({"success":true,"data":[]})", kNone, "response failed: .*", ZARN_ERR_FORMAT},
        {title, "", kNone, "Failed to read socket, errno\\([0-9]+\\): .+", ZARN_ERR_READ, LOG_DEBUG},
        // No fields (a negative count is none): the reply is still read and
        // judged, and the values are not touched.
        {none, R"({"success":false,"data":{}})", kGarbage, "response failed: .*", ZARN_ERR_FORMAT},
        {none, R"({"success":1,"data":{}})", kGarbage, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reply.substr(0, 60));
        zarntest::ClearLogs();
        const std::string reply = c.code != 0 || c.key == none ? c.reply
            : R"({"success":true,"data":{)" + (c.reply.empty() ? "" : "\"" + std::string(c.key ? c.key : "") + "\":" + c.reply) + "}}";
        zarntest::FakeDaemon daemon({zarntest::ReadRequest(), reply.empty() ? zarntest::Close() : zarntest::Send(reply)});
        Value got = kGarbage;
        EXPECT_EQ(c.code, ZARNQueryDocumentFieldGet("music", 7, &c.key, c.key == none ? -3 : 1, &got));
        EXPECT_RECORD(c.want, got);
        EXPECT_EQ(1u, daemon.WaitFinished(1)[0].requests.size());
        const auto lines = UnitLogs(c.log);
        EXPECT_TRUE(lines.size() == !c.log.empty() && lines.size() == zarntest::Logs().size() &&
                    (lines.empty() || lines[0].priority == c.priority));
    }
}

// Refused calls still open and close a connection, send nothing, log nothing.
TEST(DocumentFieldGet, RefusesMissingArguments) {
    const char *keys[] = {"ZARNMDTitle"};
    zarntest::FakeDaemon daemon({zarntest::ReadRequest()});
    for (int refusal = 0; refusal < 3; ++refusal) {
        Value got = kGarbage;
        EXPECT_EQ(ZARN_ERR_INVALID, ZARNQueryDocumentFieldGet(refusal == 0 ? nullptr : "music", 1,
                                                              refusal == 1 ? nullptr : keys, 1, refusal == 2 ? nullptr : &got));
        if (refusal == 0) { EXPECT_RECORD(kNone, got); }
    }
    const auto seen = daemon.WaitClosed(3, std::chrono::seconds(5));  // an unclosed handle shows here
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(i < seen.size() && seen[i].requests.empty() && seen[i].peer_closed) << i;
    EXPECT_TRUE(zarntest::Logs().empty());
}

}  // namespace
