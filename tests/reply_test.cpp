// Telling reply packets apart, and the JSON text helpers under it.
#include <gtest/gtest.h>

#include "daemon_reply.h"
#include "json_text.h"

namespace {

struct ReplyCase {
    const char *text;
    zarn::ReplyKind kind;
};

class Classify : public testing::TestWithParam<ReplyCase> {};

TEST_P(Classify, FollowsHeaderEndHitOrder) {
    Json::Value value(42);  // stale content must not survive
    EXPECT_EQ(GetParam().kind, zarn::ClassifyReply(GetParam().text, &value)) << GetParam().text;
}

using zarn::ReplyKind;
INSTANTIATE_TEST_SUITE_P(
    Packets, Classify,
    testing::Values(ReplyCase{"{\"total\": 2}", ReplyKind::kHeader},
                    ReplyCase{"{\"total\": 2, \"success\": true}", ReplyKind::kHeader},
                    ReplyCase{"{\"success\": false}", ReplyKind::kEnd},
                    ReplyCase{"{\"success\": null, \"ZARNMDPath\": \"/a\"}", ReplyKind::kEnd},
                    ReplyCase{"{\"ZARNMDPath\": \"/a\"}", ReplyKind::kHit},
                    ReplyCase{"{}", ReplyKind::kHit},
                    ReplyCase{"  {\"total\": 0}\n", ReplyKind::kHeader},
                    ReplyCase{"", ReplyKind::kMalformed},
                    ReplyCase{"{\"total\": 2", ReplyKind::kMalformed},
                    ReplyCase{"{\"total\": 2} {}", ReplyKind::kMalformed},
                    ReplyCase{"{\"total\": 2} x", ReplyKind::kMalformed},
                    ReplyCase{"[{\"total\": 2}]", ReplyKind::kMalformed},
                    ReplyCase{"\"total\"", ReplyKind::kMalformed},
                    ReplyCase{"17", ReplyKind::kMalformed},
                    ReplyCase{"null", ReplyKind::kMalformed}));

TEST(Classify, DeepNestingIsMalformedNotACrash) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    Json::Value value;
    EXPECT_EQ(ReplyKind::kMalformed, zarn::ClassifyReply(deep, &value));
}

struct TotalCase {
    const char *text;
    int total;
};

class Total : public testing::TestWithParam<TotalCase> {};

TEST_P(Total, ConvertsWithoutThrowing) {
    Json::Value value;
    ASSERT_TRUE(zarn::json::FromString(GetParam().text, &value));
    EXPECT_EQ(GetParam().total, zarn::ReplyTotal(value)) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Headers, Total,
    testing::Values(TotalCase{"{\"total\": 120}", 120}, TotalCase{"{\"total\": -3}", -3},
                    TotalCase{"{\"success\": false}", 0}, TotalCase{"{\"total\": null}", 0},
                    TotalCase{"{\"total\": 7.9}", 7}, TotalCase{"{\"total\": true}", 1},
                    TotalCase{"{\"total\": \"12\"}", 0}, TotalCase{"{\"total\": [1]}", 0},
                    TotalCase{"{\"total\": 4294967296}", 0}, TotalCase{"{\"total\": 1e300}", 0},
                    TotalCase{"[1, 2]", 0}));

TEST(JsonText, WritesCompactUtf8ThatReadsBack) {
    Json::Value value(Json::objectValue);
    value["query"] = "caf\xc3\xa9 \"quoted\"";
    value["uid"] = Json::UInt(4294967295u);
    const std::string text = zarn::json::ToString(value);
    EXPECT_EQ("{\"query\":\"caf\xc3\xa9 \\\"quoted\\\"\",\"uid\":4294967295}", text);
    Json::Value back;
    ASSERT_TRUE(zarn::json::FromString(text, &back));
    EXPECT_EQ(text, zarn::json::ToString(back));
    EXPECT_EQ(4294967295u, back["uid"].asUInt());
}

TEST(JsonText, FromFileReadsWholeFilesAndFailsCleanly) {
    Json::Value value(1);
    EXPECT_FALSE(zarn::json::FromFile("/var/run/no-such-file", &value));
    EXPECT_TRUE(value.isNull());
    FILE *f = fopen("/var/run/list.json", "w");
    ASSERT_NE(nullptr, f);
    fputs("[{\"path\": \"/docs\"}, {\"path\": \"/media/x\"}]\n", f);
    fclose(f);
    ASSERT_TRUE(zarn::json::FromFile("/var/run/list.json", &value));
    EXPECT_EQ(2u, value.size());
    EXPECT_FALSE(zarn::json::FromFile("/var/run", &value));  // a directory
}

}  // namespace
