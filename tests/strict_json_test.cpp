// Only RFC 8259 JSON texts are read: each text goes to the library as a
// search hit, as a document reply and as the folder list, and every reader
// must agree on it.
#include <string>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarntest;

TEST(StrictJson, EveryReaderTakesOnlyRfc8259Texts) {
    const struct {
        const char *value;  // a member's value in a nested object
        bool valid = false;
        const char *before = "", *after = "";  // around the whole text
    } texts[] = {
        {"1,"}, {"[1,2,]"}, {"[1,,2]"}, {"'x'"}, {"1 // c\n"}, {"/* c */ 1"}, {"1", false, "", "/**/"},
        {"1", false, "", "{}"}, {"1", false, "\xEF\xBB\xBF"}, {"1", false, "\f"}, {"NaN"}, {"-Infinity"},
        {"{1:2}"}, {"{\"a\":1,\"a\":2}"}, {"{\"a\" 1}"}, {"tru"}, {"True"}, {"\"abc"},
        {"01"}, {".5"}, {"1."}, {"1e+"}, {"+1"}, {"-"}, {"0x10"},
        {"\"a\tb\""}, {"\"a\x1F" "b\""}, {"\"\\x41\""}, {"\"\\u41\""},
        {"\"\\uDC00\""}, {"\"\\ud83dx\""}, {"\"\\ud83d\\u0041\""},
        {"[0,-0,10,-1.5e+10,2E-3,1e5,0.25]", true},
        {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\ud83d\\ude00\\uD83D\\uDE00\\u0000 \x7F\xC3\xA9\xFF\"", true},
        {"{\"a\":[true,false,null,{}],\"b\":[]}", true},
        {" \t\n\r[ 1 , \"x\" ] ", true, " \r\n\t", "\n "},
    };
    SetShareTable({{"music", "/volume1/music"}});
    for (const auto &t : texts) {
        auto wrap = [&](const char *open, const char *close = "}}") {
            return std::string(t.before) + open + t.value + close + t.after;
        };
        SCOPED_TRACE(wrap("", ""));
        ClearLogs();
        FakeDaemon daemon({ReadRequest(), Send(wrap(R"({"success":true,"data":{"ZARNMDTitle":"x","extra":)"))});
        daemon.Queue({Send(R"({"total":1})"), Send(wrap(R"({"ZARNMDPath":"/a","additional":{"doc_id":7,"x":)")),
                      Send(R"({"success":true})")});
        ZARNQueryHandle *handle = nullptr;
        ASSERT_EQ(ZARNQueryConnectionInit(&handle), 0);
        _tag_search_record *record = nullptr;
        EXPECT_EQ(ZARNQueryGetNextRecord(handle, &record), t.valid ? 0 : ZARN_ERR_FORMAT);
        EXPECT_EQ(record != nullptr && record->doc_id == 7, t.valid);
        ZARNQueryFreeRecord(record);
        ZARNQueryConnectionClose(handle);

        const char *key = "ZARNMDTitle";
        ZARNQueryDocumentFieldValue value{};
        EXPECT_EQ(ZARNQueryDocumentFieldGet("music", 7, &key, 1, &value), t.valid ? 0 : ZARN_ERR_FORMAT);

        WriteFile(kFolderConfig, wrap(R"([{"path":"/music/pop","extra":)", "}]"));
        EXPECT_EQ(FILEIDXIsPathIndexed("/music/pop/a"), t.valid ? 1 : 0);
        const std::string logged = "_cwrap\\.cpp:[0-9]+ (response format is wrong:|Failed to load json from) ";
        for (const char *reader : {"query_get", "query_document", "fileindex"})
            EXPECT_EQ(LogsMatching("^" + std::string(reader) + logged).size(), t.valid ? 0u : 1u) << reader;
    }
}

}  // namespace
