// Telling reply packets apart, and reading a header's total.
#include <gtest/gtest.h>

#include "daemon_reply.h"
#include "json_text.h"

namespace {

using zarn::ReplyKind;

TEST(Reply, ClassifiesPackets) {
    const struct {
        std::string text;
        ReplyKind kind;
    } cases[] = {
        {R"({"total": 2})", ReplyKind::kHeader},       {R"({"total": 2, "success": true})", ReplyKind::kHeader},
        {"  {\"total\": 0}\n", ReplyKind::kHeader},     {R"({"success": false})", ReplyKind::kEnd},
        {R"({"success": null, "ZARNMDPath": "/a"})", ReplyKind::kEnd},
        {R"({"ZARNMDPath": "/a"})", ReplyKind::kHit},  {"{}", ReplyKind::kHit},
        {"", ReplyKind::kMalformed},                   {R"({"total": 2)", ReplyKind::kMalformed},
        {R"({"total": 2} {})", ReplyKind::kMalformed}, {R"({"total": 2} x)", ReplyKind::kMalformed},
        {R"([{"total": 2}])", ReplyKind::kMalformed},  {R"("total")", ReplyKind::kMalformed},
        {"17", ReplyKind::kMalformed},                 {"null", ReplyKind::kMalformed},
        {std::string(100000, '[') + std::string(100000, ']'), ReplyKind::kMalformed},  // no crash
    };
    for (const auto &c : cases) {
        Json::Value value(42);  // stale content must not survive
        EXPECT_EQ(zarn::ClassifyReply(c.text, &value), c.kind) << c.text.substr(0, 40);
    }
}

TEST(Reply, TotalConvertsWithoutThrowing) {
    const struct {
        const char *text;
        int total;
    } cases[] = {{R"({"total": 120})", 120}, {R"({"total": -3})", -3},      {R"({"success": false})", 0},
                 {R"({"total": null})", 0},  {R"({"total": 7.9})", 7},      {R"({"total": true})", 1},
                 {R"({"total": "12"})", 0},  {R"({"total": [1]})", 0},      {R"({"total": 4294967296})", 0},
                 {R"({"total": 1e300})", 0}, {R"({"total": -2147483648.5})", 0}, {"[1, 2]", 0}};
    for (const auto &c : cases) {
        Json::Value value;
        ASSERT_TRUE(zarn::json::FromString(c.text, &value));
        EXPECT_EQ(zarn::ReplyTotal(value), c.total) << c.text;
    }
}

}  // namespace
