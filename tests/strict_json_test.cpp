// Only RFC 8259 JSON texts are read: each text of the table goes to the
// library as a search hit, as a document reply and as the folder list, and
// every reader must agree on it.
#include <syslog.h>

#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarntest;

struct Text {
    const char *name;
    const char *value;       // a member's value in the innermost object
    const char *tail = "";    // written after the outermost container's last element
    const char *before = "";  // written before the whole text
    const char *after = "";   // and after it
    bool valid = false;
};

// Each reply wraps the row's pieces the same way: `value` sits in a nested
// object, `tail` closes the outermost container.
std::string Wrap(const Text &t, const std::string &open, const std::string &close) {
    return t.before + open + t.value + "}" + t.tail + close + t.after;
}

const Text kTexts[] = {
    {"TrailingCommaInNestedObject", "1,"},
    {"TrailingCommaInOuterContainer", "1", ","},
    {"TrailingCommaInArray", "[1,2,]"},
    {"DroppedElement", "[1,,2]"},
    {"SingleQuotes", "'x'"},
    {"LineComment", "1 // note\n"},
    {"BlockComment", "/* note */ 1"},
    {"CommentAfterText", "1", "", "", "/**/"},
    {"SecondText", "1", "", "", "{}"},
    {"NaN", "NaN"},
    {"Infinity", "-Infinity"},
    {"LeadingZero", "01"},
    {"NegativeLeadingZero", "-00"},
    {"BareFraction", ".5"},
    {"EmptyFraction", "1."},
    {"EmptyExponent", "1e+"},
    {"PlusSign", "+1"},
    {"LoneMinus", "-"},
    {"HexNumber", "0x10"},
    {"RawTab", "\"a\tb\""},
    {"RawNewline", "\"a\nb\""},
    {"RawControl", "\"a\x01" "b\""},
    {"UnknownEscape", "\"\\x41\""},
    {"ShortUnicodeEscape", "\"\\u41\""},
    {"LoneLowSurrogate", "\"\\udc00\""},
    {"HighSurrogateWithoutLow", "\"\\uD83Dx\""},
    {"HighSurrogateThenNonSurrogate", "\"\\ud83d\\u0041\""},
    {"NumericKey", "{1:2}"},
    {"DuplicateName", "{\"a\":1,\"a\":2}"},
    {"MissingColon", "{\"a\" 1}"},
    {"TruncatedLiteral", "tru"},
    {"CapitalLiteral", "True"},
    {"UnclosedString", "\"abc"},
    {"ByteOrderMark", "1", "", "\xEF\xBB\xBF"},
    {"FormFeedAsBlank", "1", "", "\f"},
    {"Valid: numbers", "[0,-0,10,-1.5e+10,2E-3,1e5,0.25]", "", "", "", true},
    {"Valid: escapes", "\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\ud83d\\ude00\\uD83D\\uDE00\\u0000\"", "", "", "", true},
    {"Valid: nesting and literals", "{\"a\":[true,false,null,{}],\"b\":[]}", "", "", "", true},
    {"Valid: blanks everywhere", " \t\n\r[ 1 , \"\xC3\xA9\" ] ", "", " \r\n\t", "\n ", true},
};

class StrictJson : public ::testing::TestWithParam<Text> {};

TEST_P(StrictJson, EveryReaderAgrees) {
    const Text &t = GetParam();
    const char kPath[] = "/music/pop/a.mp3";
    const std::string hit = Wrap(t, std::string(R"({"ZARNMDPath":")") + kPath +
                                        R"(","additional":{"doc_id":7,"extra":)", "}");
    const std::string reply = Wrap(t, R"({"success":true,"data":{"ZARNMDTitle":"x","extra":)", "}");
    const std::string folders = Wrap(t, R"([{"path":"/music/pop","extra":)", "]");

    {  // a hit read with the streaming reader
        ClearLogs();
        FakeDaemon daemon({Send(R"({"total":1})"), Send(hit), Send(R"({"success":true})")});
        ZARNQueryHandle *handle = nullptr;
        ASSERT_EQ(ZARNQueryConnectionInit(&handle), 0);
        _tag_search_record *record = nullptr;
        const int code = ZARNQueryGetNextRecord(handle, &record);
        if (t.valid) {
            EXPECT_EQ(code, 0) << hit;
            ASSERT_NE(record, nullptr);
            EXPECT_STREQ(record->path, kPath);
            EXPECT_EQ(record->doc_id, 7);
        } else {
            EXPECT_EQ(code, ZARN_ERR_FORMAT) << hit;
            EXPECT_EQ(record, nullptr);
            const auto lines = LogsMatching("^query_get_cwrap\\.cpp:[0-9]+ response format is wrong: ");
            ASSERT_EQ(lines.size(), 1u) << hit;
            EXPECT_EQ(lines[0].priority, LOG_ERR);
            EXPECT_EQ(lines[0].text.substr(lines[0].text.find(": ") + 2), hit);
        }
        ZARNQueryFreeRecord(record);
        ZARNQueryConnectionClose(handle);
    }
    {  // a document reply
        ClearLogs();
        FakeDaemon daemon({ReadRequest(), Send(reply)});
        const char *key = "ZARNMDTitle";
        ZARNQueryDocumentFieldValue value{};
        EXPECT_EQ(ZARNQueryDocumentFieldGet("music", 7, &key, 1, &value), t.valid ? 0 : ZARN_ERR_FORMAT)
            << reply;
        EXPECT_EQ(static_cast<int>(value.type), t.valid ? DOCUMENT_FIELD_TYPE_STRING : 0);
        EXPECT_EQ(LogsMatching("^query_document_cwrap\\.cpp:[0-9]+ response format is wrong: ").size(),
                  t.valid ? 0u : 1u);
    }
    {  // the folder list
        ClearLogs();
        SetShareTable({{"music", "/volume1/music"}});
        WriteFile(kFolderConfig, folders);
        EXPECT_EQ(FILEIDXIsPathIndexed("/music/pop/a"), t.valid ? 1 : 0) << folders;
        EXPECT_EQ(LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ Failed to load json from ").size(),
                  t.valid ? 0u : 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, StrictJson, ::testing::ValuesIn(kTexts),
                         [](const ::testing::TestParamInfo<Text> &info) {
                             std::string name;
                             for (const char *c = info.param.name; *c; ++c)
                                 if (isalnum(static_cast<unsigned char>(*c))) name += *c;
                             return name;
                         });

}  // namespace
