#include "StreamingController/ISessionObserver.h"

#include <gmock/gmock.h>

#include <future>

#include "Common/SessionEventStream.h"
#include "recording/SessionNames.h"
#include "recording/SessionReader.h"
#include "recording/SessionWriter.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::recording::Record;

namespace {

/// Keeps what it is told, the observer's thread being the only one that touches it.
struct Collector : ISessionObserver {
    void OnRequest(const opal::RequestEvent& event) override { Keep(event); }
    void OnDecision(const opal::DecisionEvent& event) override { Keep(event); }
    void OnSwitchingCall(const opal::SwitchingCallEvent& event) override { Keep(event); }
    void OnLevelIndex(const opal::LevelIndexEvent& event) override { Keep(event); }
    void OnBuffers(const opal::BufferEvent& event) override { Keep(event); }
    void OnSink(const opal::SinkEvent& event) override { Keep(event); }
    void OnState(const opal::StateEvent& event) override {
        Keep(event);
        states.push_back(opal::recording::Name(event.state));
        if (inState)
            inState();
    }
    void OnDropped(uint64_t total) override { dropped = total; }
    void Keep(const Record& record) { records.push_back(record); }
    template <typename Event>
    std::vector<Event> All() const {
        std::vector<Event> all;
        for (const Record& record : records)
            if (const auto* event = std::get_if<Event>(&record))
                all.push_back(*event);
        return all;
    }

    std::function<void()> inState;
    std::vector<Record> records;
    std::vector<std::string> states;
    uint64_t dropped = 0;
};

class ObserverTest : public SessionFixture {
  protected:
    ~ObserverTest() override { (void)SetSessionObserver(nullptr); }
    Collector m_seen;
};

TEST_F(ObserverTest, TellsAWholeSession) {
    ASSERT_EQ(SetSessionObserver(&m_seen), OPAL_OK);
    m_origin.SetRate(int64_t{3000} * 1000 * kSpeed);
    Presentation film;
    film.levelKbps = {300, 600, 1200};
    film.clusters = 12;
    film.trick = true;
    StartPlaying(film);
    ASSERT_TRUE(WaitForPosition(3000));
    int64_t target = 14000;
    ASSERT_EQ(m_player->Seek(target), OPAL_OK);
    ASSERT_TRUE(WaitForPosition(15000));
    ASSERT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_TWOXRW), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlayRateChanged " + std::to_string(OPAL_PLAYRATE_TWOXRW)));
    ASSERT_EQ(m_player->Finalize(), OPAL_OK);
    ASSERT_EQ(SetSessionObserver(nullptr), OPAL_OK);

    EXPECT_EQ(m_seen.dropped, 0u);
    EXPECT_THAT(m_seen.states, testing::IsSupersetOf({"opening", "opened", "play-wanted", "playing",
                                                      "seek", "rate-wanted", "rate", "closed"}));
    // Each cluster that was asked for is told, with the bytes that came.
    size_t clusters = 0;
    for (const auto& request : m_seen.All<opal::RequestEvent>()) {
        if (request.end != opal::RequestEnd::Complete)
            continue;
        int64_t asked = 0;
        for (const auto& [offset, length] : request.ranges)
            asked += length;
        if (request.ranges.size() == 1) {
            EXPECT_EQ(request.bytes, asked) << request.url;
        }
        clusters += request.purpose == opal::RequestPurpose::Cluster && request.ranges.size() == 1;
    }
    EXPECT_NEAR(static_cast<double>(clusters), static_cast<double>(ClusterRequests().size()), 3)
        << "all but what the jumps cancelled";
    // The levels that were told are the levels that were decided.
    int level = -1;
    for (const auto& decision : m_seen.All<opal::DecisionEvent>()) {
        EXPECT_EQ(decision.from, level);
        level = decision.to;
    }
    EXPECT_GT(m_seen.All<opal::BufferEvent>().size(), 10u);
    EXPECT_FALSE(m_seen.All<opal::SinkEvent>().empty());
    // What is written is read as it was.
    opal::recording::SessionReader reader;
    std::string error;
    opal::recording::Header header;
    const int64_t start = header.startUs = m_seen.All<opal::StateEvent>().front().timeUs;
    ASSERT_TRUE(reader.Take(ToLine(header), &error)) << error;
    for (const Record& record : m_seen.records)
        ASSERT_TRUE(reader.Take(ToLine(record, start), &error));
    ASSERT_EQ(reader.Get().records.size(), m_seen.records.size());
    for (size_t i = 0; i < m_seen.records.size(); ++i)
        EXPECT_EQ(ToLine(reader.Get().records[i], start), ToLine(m_seen.records[i], start));
}

TEST(SessionObserverTest, ASlowObserverLosesEventsAndHoldsNothingUp) {
    Collector seen;
    std::promise<void> entered;
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    OPALError within = OPAL_OK;
    seen.inState = [&, first = true]() mutable {
        if (!std::exchange(first, false))
            throw std::runtime_error("an observer's own affair");
        within = SetSessionObserver(nullptr);
        entered.set_value();
        left.wait();
    };
    ASSERT_EQ(SetSessionObserver(&seen), OPAL_OK);
    opal::SessionEventStream::Tell(opal::StateEvent());
    entered.get_future().wait();
    EXPECT_EQ(within, OPAL_ERROR_GENERAL);
    constexpr size_t kTold = 20000;
    for (size_t i = 0; i < kTold; ++i)
        opal::SessionEventStream::Tell(opal::SinkEvent());
    leave.set_value();
    ASSERT_EQ(SetSessionObserver(nullptr), OPAL_OK);
    EXPECT_EQ(seen.All<opal::SinkEvent>().size() + seen.dropped, kTold);
    EXPECT_EQ(seen.All<opal::SinkEvent>().size(), 8192u);
    EXPECT_FALSE(opal::SessionEventStream::IsObserved());
}

}  // namespace
