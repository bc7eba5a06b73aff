// The origin's parts that need no socket: ranges, patterns, targets, script files.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "opal-origin/Origin.h"
#include "opal-origin/Script.h"
#include "opal-origin/src/ByteRanges.h"
#include "opal-origin/src/Content.h"

namespace {

using namespace opal::origin;

std::string Resolved(const std::string& value, int64_t size) {
    std::string text;
    for (const Span& span : ResolveRanges(ParseRanges(value), size)) {
        text += std::to_string(span.offset) + "+" + std::to_string(span.length) + " ";
    }
    return text;
}

TEST(ByteRangesTest, AreResolvedInTheirOrder) {
    const std::map<std::string, std::string> cases{
        {"bytes=0-0", "0+1 "},
        {"bytes=90-", "90+10 "},
        {"bytes=-10", "90+10 "},
        {"bytes=-1000", "0+100 "},
        {"bytes=50-1000", "50+50 "},
        {" BYTES=7-8 , 1-2,,3-3 ", "7+2 1+2 3+1 "},
        {"bytes=5-9,0-7", "5+5 0+8 "},
        {"bytes=100-,99-", "99+1 "},
        {"bytes=-0", ""},
        {"bytes=0-99999999999999999999999", "0+100 "},
        {"bytes=99999999999999999999999-", ""},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(expected, Resolved(value, 100)) << value;
        EXPECT_EQ("", Resolved(value, 0)) << value;
    }
    for (const char* value :
         {"", "bytes", "bytes=", "bytes=-", "bytes=a-b", "bytes=9-5", "0-5", "bytes=1-2,x",
          "bytes=+1-2", "bytes=1--2", "bytes=1-2-3", "lines=1-2"}) {
        EXPECT_TRUE(ParseRanges(value).empty()) << value;
    }
}

TEST(PatternTest, GlobsOverPaths) {
    const std::vector<std::pair<const char*, const char*>> matching{{"", "/any"},
                                                                    {"*", "/any/a"},
                                                                    {"/a.mkv", "/a.mkv"},
                                                                    {"a.mkv", "/x/y/a.mkv"},
                                                                    {"*.mkv", "/x/a.mkv"},
                                                                    {"video?.mkv", "/video3.mkv"},
                                                                    {"/x/*a*b*c", "/x/aab/bxc"},
                                                                    {"x/a.mkv", "/y/x/a.mkv"}};
    for (const auto& [pattern, path] : matching) {
        EXPECT_TRUE(MatchesPattern(pattern, path)) << pattern << " " << path;
    }
    const std::vector<std::pair<const char*, const char*>> others{{"a.mkv", "/aa.mkv"},
                                                                  {"/a.mkv", "/x/a.mkv"},
                                                                  {"*.mkv", "/a.mkv2"},
                                                                  {"a?", "/a"},
                                                                  {"/x/*a*b*c", "/x/abcd"}};
    for (const auto& [pattern, path] : others) {
        EXPECT_FALSE(MatchesPattern(pattern, path)) << pattern << " " << path;
    }
}

TEST(TargetTest, IsDecodedOrRefused) {
    const std::map<std::string, std::string> good{{"/", "/"},
                                                  {"/a%20b?x=/../y", "/a b"},
                                                  {"/..a/b..", "/..a/b.."},
                                                  {"http://host:1/a/b#c", "/a/b"},
                                                  {"http://host", "/"}};
    std::string path;
    for (const auto& [target, expected] : good) {
        ASSERT_TRUE(DecodeTarget(target, &path)) << target;
        EXPECT_EQ(expected, path);
    }
    for (const char* target : {"", "a", "*", "/%", "/%4", "/%zz", "/a%00b", "/../a", "/a/..",
                               "/a/./b", "/%2e%2e/a", "/a%2f..%2fb", "http://host/../x"}) {
        EXPECT_FALSE(DecodeTarget(target, &path)) << target;
    }
}

TEST(GeneratedFileTest, HoldsNothingThatLooksLikeMultipart) {
    std::string bytes;
    for (const int64_t start : {int64_t{0}, int64_t{0xFFFFFF00}, int64_t{0x7FFFFFFF0000}}) {
        bytes.clear();
        for (int64_t i = 0; i < 300000; ++i) {
            bytes.push_back(static_cast<char>(Origin::GeneratedByte(start + i)));
        }
        EXPECT_EQ(std::string::npos, bytes.find("\r\n\r\n"));
        EXPECT_EQ(std::string::npos, bytes.find("\r\n--"));
    }
}

TEST(ScriptTest, EveryKeyReachesItsFault) {
    Script script;
    std::string error;
    ASSERT_TRUE(Script::FromJson(R"({
        "rates": "0 6000k, 20 0", "latency_ms": 15,
        "faults": [
          {"url": "v*", "method": "HEAD", "nth": 3, "status": 404, "body": "", "close_after": true},
          {"range_start": 5, "covers": 9, "skip": 2, "times": 4, "redirect": "/b", "delay_ms": 7,
           "ignore_range": true, "extra_bytes": 10, "headers": {"A": "b"}, "drop_headers": ["C"]},
          {"stall_at": 100, "stall_ms": 50, "reset_at": "before-head", "close_at": 0},
          {"method": "GET", "hold": true}]})",
                                 &script, &error))
        << error;
    ASSERT_TRUE(script.hasRates);
    ASSERT_EQ(2U, script.rates.steps.size());
    EXPECT_EQ(20000, script.rates.steps[1].atMs);
    EXPECT_EQ(15, script.latencyMs);
    ASSERT_EQ(4U, script.faults.size());
    const Fault& first = script.faults[0];
    EXPECT_EQ("v*", first.pattern);
    EXPECT_EQ(Method::Head, first.method);
    EXPECT_EQ(std::make_pair(int64_t{2}, int64_t{1}), std::make_pair(first.skip, first.count));
    EXPECT_EQ(404, first.status);
    EXPECT_EQ("", first.body.value_or("unset"));
    EXPECT_TRUE(first.closeAfter);
    const Fault& second = script.faults[1];
    EXPECT_EQ(std::make_pair(int64_t{5}, int64_t{9}),
              std::make_pair(second.rangeStart, second.covers));
    EXPECT_EQ(std::make_pair(int64_t{2}, int64_t{4}), std::make_pair(second.skip, second.count));
    EXPECT_EQ("/b", second.location);
    EXPECT_EQ(std::make_pair(int64_t{7}, int64_t{10}),
              std::make_pair(second.delayMs, second.extraBytes));
    EXPECT_TRUE(second.ignoreRange);
    ASSERT_EQ(1U, second.setHeaders.size());
    EXPECT_EQ("b", second.setHeaders[0].second);
    EXPECT_EQ(std::vector<std::string>{"C"}, second.dropHeaders);
    const Fault& third = script.faults[2];
    EXPECT_EQ(std::make_pair(int64_t{100}, int64_t{50}),
              std::make_pair(third.stallAt, third.stallMs));
    EXPECT_EQ(std::make_pair(kBeforeHead, int64_t{0}),
              std::make_pair(third.resetAt, third.closeAt));
    EXPECT_EQ(Method::Get, script.faults[3].method);
    EXPECT_EQ(kBeforeHead, script.faults[3].stallAt);
}

TEST(ScriptTest, MistakesAreNamed) {
    const std::map<std::string, std::string> cases{
        {"", "parse error"},
        {"[]", "object"},
        {std::string(100000, '['), "parse error"},
        {R"({"speed": 1})", "\"speed\""},
        {R"({"rate": "fast"})", "fast"},
        {R"({"rate": "1k", "rates": "0 1k"})", "beside another"},
        {R"({"trace": []})", "no time"},
        {R"({"latency_ms": -1})", "-1"},
        {R"({"faults": {}})", "array"},
        {R"({"faults": [{}, {"urk": "x"}]})", "fault 2: has an unknown key \"urk\""},
        {R"({"faults": [{"status": 42}]})", "fault 1: key \"status\""},
        {R"({"faults": [{"stall_at": "soon"}]})", "soon"},
        {R"({"faults": [{"stall_at": 1.5}]})", "1.5"},
        {R"({"faults": [{"extra_bytes": 18446744073709551615}]})", "18446744073709551615"},
        {R"({"faults": [{"method": "PUT"}]})", "PUT"},
        {R"({"faults": [{"headers": {"A": 1}}]})", "key \"headers\""},
        {R"({"faults": [7]})", "fault 1: is not an object"},
    };
    for (const auto& [text, expected] : cases) {
        Script script;
        std::string error;
        EXPECT_FALSE(Script::FromJson(text, &script, &error)) << text.substr(0, 100);
        EXPECT_NE(std::string::npos, error.find(expected)) << error;
    }
}

}  // namespace
