// The link and its scripts, in virtual time.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "opal-origin/RateScript.h"
#include "opal-origin/src/Link.h"

namespace {

using opal::origin::kUnlimited;
using opal::origin::Link;
using opal::origin::RateScript;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = Link::Time;

// Clients that always have more to send, stepped from one due time to the next.
class LinkTest : public testing::Test {
  protected:
    void Ask(uint64_t connection, bool continuing) {
        m_link.Ask(connection, m_link.Quantum(m_now), continuing, m_now);
        m_asked[connection] = m_link.Quantum(m_now);
    }

    // Runs until the time; each grant is noticed this much too late.
    void RunUntil(Time end, Time lateness = Time(0)) {
        uint64_t connection = 0;
        while (m_link.Due() != Link::kNoTime && m_link.Due() + lateness <= end) {
            m_now = std::max(m_now, m_link.Due() + lateness);
            ASSERT_TRUE(m_link.Take(m_now, &connection));
            m_sent[connection] += m_asked[connection];
            Ask(connection, true);
        }
        m_now = end;
    }

    RateScript Text(const std::string& text) {
        RateScript script;
        std::string error;
        EXPECT_TRUE(RateScript::FromText(text, &script, &error)) << error;
        return script;
    }

    Link m_link;
    Time m_now = seconds(1000);
    std::map<uint64_t, int64_t> m_asked;
    std::map<uint64_t, int64_t> m_sent;
};

TEST_F(LinkTest, DeliversTheRateAlsoWhenTimersAreLate) {
    for (const int64_t rate : {100000, 1000000, 6000000, 50000000, 2000000000}) {
        for (const Time lateness : {Time(0), Time(milliseconds(1)), Time(milliseconds(3))}) {
            m_link = Link();
            m_sent.clear();
            m_link.SetScript(RateScript::Constant(rate), m_now);
            Ask(1, false);
            RunUntil(m_now + seconds(10), lateness);
            const double expected = static_cast<double>(rate) / 8 * 10;
            // A packet takes long at 100 kbit/s, and the last one may not be through.
            EXPECT_NEAR(static_cast<double>(m_sent[1]), expected, expected * 0.01 + 1460)
                << rate << " bit/s, late by " << lateness.count() << " ns";
        }
    }
}

TEST_F(LinkTest, IdleTimeIsNotSavedUpAndASlowClientLosesIt) {
    m_link.SetScript(RateScript::Constant(8000000), m_now);  // 1000 bytes a millisecond
    uint64_t connection = 0;
    m_link.Ask(1, 5000, false, m_now);
    EXPECT_EQ(m_now + milliseconds(5), m_link.Due());
    m_now += milliseconds(5);
    ASSERT_TRUE(m_link.Take(m_now, &connection));
    EXPECT_EQ(Link::kNoTime, m_link.Due());

    m_now += milliseconds(40);
    m_link.Ask(1, 5000, false, m_now);
    EXPECT_EQ(m_now + milliseconds(5), m_link.Due()) << "a new reply found credit";
    m_now += milliseconds(5);
    ASSERT_TRUE(m_link.Take(m_now, &connection));

    m_now += seconds(10);  // the client did not read; only what a late timer explains is made good
    m_link.Ask(1, 500000, true, m_now);
    EXPECT_EQ(m_now + milliseconds(400), m_link.Due());
}

TEST_F(LinkTest, ConnectionsTakeTurns) {
    m_link.SetScript(RateScript::Constant(6000000), m_now);
    Ask(1, false);
    Ask(2, false);
    Ask(3, false);
    RunUntil(m_now + seconds(3));
    for (uint64_t connection = 1; connection <= 3; ++connection) {
        EXPECT_NEAR(750000.0, static_cast<double>(m_sent[connection]), 7500) << connection;
    }
    m_link.Drop(1, m_now);
    m_link.Drop(3, m_now);
    m_sent.clear();
    RunUntil(m_now + seconds(2));
    EXPECT_NEAR(1500000.0, static_cast<double>(m_sent[2]), 7500);
    EXPECT_EQ(0, m_sent[1] + m_sent[3]);
}

TEST_F(LinkTest, AScriptStartsWithTheFirstRequestAndItsLastStepStays) {
    m_link.SetScript(Text("0 800k, 2 0, 5 8M, 6 80k"), m_now);
    m_now += seconds(100);
    m_link.OnRequest(m_now);
    const Time start = m_now;
    m_now += milliseconds(500);
    m_link.OnRequest(m_now);  // the second one moves nothing
    Ask(1, false);
    RunUntil(start + seconds(2));
    EXPECT_NEAR(150000.0, static_cast<double>(m_sent[1]), 1460);
    RunUntil(start + seconds(5));
    EXPECT_NEAR(150000.0, static_cast<double>(m_sent[1]), 1460) << "sent while the link was cut";
    RunUntil(start + seconds(6));
    EXPECT_NEAR(1150000.0, static_cast<double>(m_sent[1]), 8000);
    RunUntil(start + seconds(16));
    EXPECT_NEAR(1250000.0, static_cast<double>(m_sent[1]), 8000);
}

TEST_F(LinkTest, ANewRateHoldsForTheQuantumOnTheWay) {
    m_link.SetScript(RateScript::Constant(8000), m_now);  // 1 byte a millisecond
    m_link.Ask(1, 1000, false, m_now);
    m_link.SetScript(RateScript::Constant(80000), m_now + milliseconds(400));
    EXPECT_EQ(m_now + milliseconds(460), m_link.Due());
    m_link.SetScript(RateScript::Constant(0), m_now + milliseconds(430));
    EXPECT_EQ(Link::kNoTime, m_link.Due());
    m_link.SetScript(RateScript::Constant(kUnlimited), m_now + milliseconds(900));
    EXPECT_EQ(m_now + milliseconds(900), m_link.Due());
}

TEST_F(LinkTest, TracesLoopWithTheirLatency) {
    RateScript trace;
    std::string error;
    ASSERT_TRUE(RateScript::FromTrace(R"([
        {"duration_ms": 1000, "bandwidth_kbps": 800, "latency_ms": 20},
        {"duration_ms": 0, "bandwidth_kbps": 99999},
        {"duration_ms": 500, "bandwidth_kbps": 0, "latency_ms": 300.4},
        {"duration_ms": 500, "bandwidth_kbps": 1600.0}])",
                                      &trace, &error))
        << error;
    m_link.SetScript(trace, m_now);
    m_link.OnRequest(m_now);
    const Time start = m_now;
    EXPECT_EQ(20, m_link.LatencyMs(start + milliseconds(2999)));
    EXPECT_EQ(300, m_link.LatencyMs(start + milliseconds(3000)));
    EXPECT_EQ(0, m_link.LatencyMs(start + milliseconds(3999)));
    Ask(1, false);
    RunUntil(start + seconds(20));
    EXPECT_NEAR(2000000.0, static_cast<double>(m_sent[1]), 1460);
}

TEST_F(LinkTest, ExtremeScriptsAreAnsweredAtOnce) {
    RateScript never;
    never.steps = {{0, 0, 0}, {1, 0, 0}};
    never.loopMs = 2;
    m_link.SetScript(never, m_now);
    m_link.OnRequest(m_now);
    m_link.Ask(1, 1460, false, m_now);
    EXPECT_EQ(Link::kNoTime, m_link.Due());

    RateScript slow;  // 1 bit in 8 ms: a packet lasts 11680 of these loops
    slow.steps = {{0, 1000, 0}, {1, 0, 0}};
    slow.loopMs = 8;
    m_link.SetScript(slow, m_now);
    m_link.OnRequest(m_now);
    EXPECT_NEAR(11680 * 8e6, static_cast<double>((m_link.Due() - m_now).count()), 16e6);

    RateScript broken;  // times that do not rise, and a loop that ends too early
    broken.steps = {{50, 8000, -5}, {20, 0, 0}, {20, 0, 0}};
    broken.loopMs = 10;
    m_link = Link();
    m_link.SetScript(broken, m_now);
    m_link.OnRequest(m_now);
    m_link.Ask(1, 10, false, m_now);
    EXPECT_EQ(m_now + milliseconds(10), m_link.Due());
    EXPECT_EQ(0, m_link.LatencyMs(m_now));
}

TEST(RateScriptTest, RatesAndScriptsAreReadOrRefused) {
    const std::map<std::string, int64_t> rates{{"800", 800},      {"6000k", 6000000},
                                               {"2.5M", 2500000}, {"1G", 1000000000},
                                               {"0", 0},          {"unlimited", kUnlimited}};
    for (const auto& [text, expected] : rates) {
        int64_t rate = 12345;
        EXPECT_TRUE(opal::origin::ParseRate(text, &rate)) << text;
        EXPECT_EQ(expected, rate) << text;
    }
    for (const char* text : {"", "k", "-1", "6x", "6kk", "nan", "inf", "2000G", " 6k", "6 k"}) {
        int64_t rate = 0;
        EXPECT_FALSE(opal::origin::ParseRate(text, &rate)) << text;
    }
    RateScript script;
    std::string error;
    for (const char* text : {"", "0", "0 6000k,", "0 6000k, 20", "0 1k, 5 2k, 5 3k", "5k 3",
                             "0 1k 2", "-1 6k", "1e300 6k"}) {
        error.clear();
        EXPECT_FALSE(RateScript::FromText(text, &script, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
    for (const char* text :
         {"", "{}", "[]", "[1]", R"([{"duration_ms": 0, "bandwidth_kbps": 1}])",
          R"([{"duration_ms": 10}])", R"([{"duration_ms": -1, "bandwidth_kbps": 1}])",
          R"([{"duration_ms": 1e18, "bandwidth_kbps": 1}])",
          R"([{"duration_ms": "1", "bandwidth_kbps": 1}])"}) {
        error.clear();
        EXPECT_FALSE(RateScript::FromTrace(text, &script, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

}  // namespace
