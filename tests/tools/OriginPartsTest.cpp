// The origin's parts that need no socket: the link in virtual time, and everything that is parsed.
#include <gmock/gmock.h>

#include "opal-origin/Origin.h"
#include "opal-origin/Script.h"
#include "opal-origin/src/Link.h"
#include "opal-origin/src/LinkLog.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace opal::origin;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::DoubleNear;
using testing::Each;
using Time = Link::Time;

constexpr Time kStart = seconds(1000);

TEST(LinkTest, DeliversTheRateInTurnsAlsoWhenTimersAreLate) {
    for (const int64_t rate : {100000, 6000000, 2000000000}) {
        for (const Time lateness : {milliseconds(0), milliseconds(1), milliseconds(3)}) {
            Link link;
            link.SetScript(RateScript::Constant(rate), kStart);
            const int64_t quantum = link.Quantum(kStart);
            // Two clients that always have more to send.
            link.Ask(0, quantum, false, kStart);
            link.Ask(1, quantum, false, kStart);
            std::vector<double> sent(2);
            Time now = kStart;
            for (uint64_t i = 0; link.Due() + lateness <= kStart + seconds(20);) {
                now = std::max(now, link.Due() + lateness);
                ASSERT_TRUE(link.Take(now, &i));
                sent[i] += static_cast<double>(quantum);
                link.Ask(i, quantum, true, now);
            }
            const double expected = static_cast<double>(rate) / 8 * 10;
            // A packet takes long at 100 kbit/s, and the last one may not be through.
            EXPECT_THAT(sent, Each(DoubleNear(expected, expected * 0.01 + 1460)))
                << rate << " bit/s, late by " << lateness.count();
        }
    }
}

TEST(LinkTest, IdleTimeIsNotSavedUpAndASlowClientLosesIt) {
    Link link;
    Time now = kStart;
    link.SetScript(RateScript::Constant(8000000), now);  // 1000 bytes a millisecond
    uint64_t connection = 0;
    for (int reply = 0; reply < 2; ++reply) {
        link.Ask(1, 5000, false, now);
        EXPECT_EQ(now + milliseconds(5), link.Due()) << "a new reply found credit";
        now += milliseconds(5);
        ASSERT_TRUE(link.Take(now, &connection));
        now += milliseconds(40);
    }
    now += seconds(10);  // the client did not read; only what a late timer explains is made good
    link.Ask(1, 500000, true, now);
    EXPECT_EQ(now + milliseconds(400), link.Due());
}

TEST(LinkLogTest, TellsEachStepOnceAndWhenItBegan) {
    const opal::test::TemporaryDirectory folder;
    LinkLog log({{{0, 5000}, {1500, 7000}, {1700, kUnlimited}}, 2000});
    ASSERT_TRUE(log.Open(folder.File("log")));
    for (const Time time : {Time(-1), Time(0), Time(milliseconds(1499)), Time(milliseconds(3600))})
        log.Follow(time);
    std::ifstream lines(folder.File("log"));
    std::string line, rates;
    std::vector<int64_t> times;
    std::getline(lines, line);
    EXPECT_NE(line.find("\"event\":\"recording\""), std::string::npos) << line;
    while (std::getline(lines, line)) {
        rates += line.substr(line.find("bps\":") + 5, 5);
        times.push_back(std::stoll(line.substr(line.find("t_us\":") + 6)));
    }
    EXPECT_EQ(rates, "5000,5000,7000,null,5000,7000,");
    for (const auto& [i, us] : {std::pair(2, 1500000), {3, 1700000}, {4, 2000000}, {5, 3500000}})
        EXPECT_EQ(times.at(static_cast<size_t>(i)) - times[1], us);
}

TEST(LinkTest, TracesLoopFromTheFirstRequestOn) {
    RateScript trace;
    std::string error;
    ASSERT_TRUE(RateScript::FromTrace(R"([
        {"duration_ms": 1000, "bandwidth_kbps": 800, "latency_ms": 20},
        {"duration_ms": 0, "bandwidth_kbps": 99999},
        {"duration_ms": 500, "bandwidth_kbps": 0, "latency_ms": 300.4},
        {"duration_ms": 500, "bandwidth_kbps": 1600.0}])",
                                      &trace, &error))
        << error;
    Link link;
    link.SetScript(trace, seconds(900));
    link.OnRequest(kStart);
    link.OnRequest(kStart + milliseconds(1));  // the second one moves nothing
    EXPECT_EQ(20, link.LatencyMs(kStart + milliseconds(2999)));
    EXPECT_EQ(300, link.LatencyMs(kStart + milliseconds(3000)));
    for (const auto& [bytes, ms] : {std::pair{100000, 1000}, {150000, 1750}, {2050000, 20500}}) {
        link.Ask(1, bytes, false, kStart);
        EXPECT_EQ(kStart + milliseconds(ms), link.Due());
        link.Drop(1, kStart);
    }

    RateScript never;
    never.steps = {{0, 0, 0}, {1, 0, 0}};
    never.loopMs = 2;
    link.SetScript(never, kStart);
    link.OnRequest(kStart);
    link.Ask(1, 1, false, kStart);
    EXPECT_EQ(Link::kNoTime, link.Due()) << "looked for the end in all loops to come";
}

TEST(OriginScriptTest, MistakesAreNamed) {
    const std::pair<std::string, std::string> rows[] = {
        {std::string(100000, '['), "parse error"},
        {R"({"rate": "nan"})", "nan"},
        {R"({"rate": "2000G"})", "2000G"},
        {R"({"rate": "1k", "rates": "0 1k"})", "beside another"},
        {R"({"rates": "0 6000k,"})", "rates"},
        {R"({"rates": "0 1k, 5 2k, 5 3k"})", "5 3k"},
        {R"({"rates": "1e300 6k"})", "1e300"},
        {R"({"trace": [{"duration_ms": 0, "bandwidth_kbps": 1}]})", "no time"},
        {R"({"trace": [{"duration_ms": 1e18, "bandwidth_kbps": 1}]})", "trace"},
        {R"({"faults": {}})", "array"},
        {R"({"faults": [{}, {"urk": "x"}]})", "fault 2: has an unknown key \"urk\""},
        {R"({"faults": [{"status": 42}]})", "fault 1: key \"status\""},
        {R"({"faults": [{"extra_bytes": 18446744073709551615}]})", "18446744073709551615"},
        {R"({"faults": [{"headers": {"A": 1}}]})", "key \"headers\""},
    };
    for (const auto& [text, expected] : rows) {
        Script script;
        std::string error;
        EXPECT_FALSE(Script::FromJson(text, &script, &error)) << text.substr(0, 100);
        EXPECT_THAT(error, testing::HasSubstr(expected));
    }
}

}  // namespace
