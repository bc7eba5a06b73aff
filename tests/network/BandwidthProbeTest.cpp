#include "Common/network/BandwidthProbe.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/AssertionTrap.h"
#include "support/FakeHTTPFile.h"
#include "support/VirtualClock.h"

namespace {

using opal::test::FakeRule;
using Texts = std::vector<std::string>;

constexpr int64_t kFails = INT64_MIN;

struct Result : BandwidthProbeNotify {
    void OnProbe(int kind, int64_t size, int64_t duration) override {
        text = std::to_string(kind) + ": " + std::to_string(size) + ", " + std::to_string(duration);
    }
    std::string text;
};

class BandwidthProbeTest : public testing::Test {
  protected:
    ~BandwidthProbeTest() override { ObjectFactory::Instance().Reset(); }

    void Serve(size_t fileSize) {
        server = std::make_shared<opal::test::FakeHTTPServer>();
        server->AddFile("http://film", std::string(fileSize, 'x'));
        opal::test::RegisterFakeHTTP(server);
    }

    std::shared_ptr<opal::test::FakeHTTPServer> server;
    Result result;
    opal::StopSignal stop;
    BandwidthProbe probe{&result, 768, 1000, &stop};
};

TEST_F(BandwidthProbeTest, ReadsGrowUntilOneTakesLongEnough) {
    const struct {
        size_t fileSize;
        std::vector<int64_t> takesMs;  ///< one a read, or kFails; below 0 the clock is set back
        Texts reads;
        std::string result;  ///< none if the last read timed out
    } kCases[] = {
        {10000000, {50, 50, 50}, {"0-767", "11520-23039", "184320-357119"}, "1: 2592000, 50"},
        {1000000, {400, 900, 1001}, {"0-767", "4096-8191", "12288-20479"}, "1: 8192, 1001"},
        {30000, {0, 0, -9000}, {"0-767", "11520-23039", "0-29999"}, "1: 30000, 0"},
        {10000, {kFails, 50, 1500}, {"0-767", "0-767", "0-9999"}, "1: 10000, 1500"},
        {10000, {50, 50, kFails}, {"0-767", "0-9999", "0-9999"}, ""},
    };
    for (const auto& test : kCases) {
        SCOPED_TRACE(testing::PrintToString(test.takesMs));
        opal::test::VirtualClock clock;
        Serve(test.fileSize);
        for (const int64_t ms : test.takesMs) {
            FakeRule rule = FakeRule::Fail(ms == kFails ? OPAL_ERROR_TIMEOUT : OPAL_OK, {},
                                           FakeRule::Kind::Read);
            rule.count = 1;
            rule.action = [&clock, ms] { clock.Advance(ms == kFails ? 0 : ms); };
            server->AddRule(rule);
        }
        result.text.clear();
        EXPECT_EQ(test.result.empty() ? OPAL_ERROR_TIMEOUT : OPAL_OK, probe.Probe("http://film"));
        EXPECT_EQ(test.reads, server->Reads());
        EXPECT_EQ(test.result, result.text);
    }
}

TEST_F(BandwidthProbeTest, WhatCannotBeProbed) {
    EXPECT_EQ("initSize > 0",
              opal::test::AssertionTextOf([&] { BandwidthProbe(&result, 0, 1000); }));
    EXPECT_EQ("!uri.empty()", opal::test::AssertionTextOf([&] { (void)probe.Probe(""); }));
    EXPECT_EQ(OPAL_ERROR_GENERAL, probe.Probe("http://film")) << "nothing makes files";
    Serve(200000);
    EXPECT_EQ(OPAL_ERROR_HTTP_CLIENT, probe.Probe("http://missing"));
    stop.Raise();  // comes before the file is there, and holds
    EXPECT_EQ(OPAL_ERROR_CANCELLED, probe.Probe("http://film"));
    EXPECT_EQ(Texts{}, server->Reads());
    EXPECT_EQ("", result.text);
}

}  // namespace
