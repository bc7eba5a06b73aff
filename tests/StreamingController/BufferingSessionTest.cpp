#include "StreamingController/BufferingSession.h"

#include <gtest/gtest.h>

namespace opal::test {
namespace {

size_t PercentOf(BufferingSession& session, size_t inFlight) {
    size_t percent = 999;
    session.UpdatePercent(inFlight);
    EXPECT_EQ(OPAL_OK, session.GetPercent(percent));
    return percent;
}

TEST(BufferingSession, CountsReceivedAndRunningBytesOfAllStreams) {
    BufferingSession session;
    EXPECT_TRUE(session.IsComplete());  // nothing to wait for
    session.SetTarget(600, OPAL_STREAM_VIDEO);
    session.SetTarget(300, OPAL_STREAM_AUDIO);
    session.SetTarget(100, OPAL_STREAM_SUBTITLE);
    session.SetTarget(77, OPAL_STREAM_TRICK);  // ignored
    session.AddBytes(599, OPAL_STREAM_VIDEO);
    EXPECT_FALSE(session.IsStreamComplete(OPAL_STREAM_VIDEO));
    EXPECT_EQ(59u, PercentOf(session, 0));
    EXPECT_EQ(60u, PercentOf(session, 1));
    EXPECT_EQ(100u, PercentOf(session, 5000));
    session.AddBytes(1, OPAL_STREAM_VIDEO);
    session.AddBytes(300, OPAL_STREAM_AUDIO);
    EXPECT_FALSE(session.IsComplete());
    session.AddBytes(100, OPAL_STREAM_SUBTITLE);
    EXPECT_TRUE(session.IsComplete());
    session.ResetStream(OPAL_STREAM_AUDIO);
    EXPECT_FALSE(session.IsComplete());
    EXPECT_EQ(70u, PercentOf(session, 0));  // what audio has to fetch still counts
}

TEST(BufferingSession, FiguresAreOf32Bits) {
    BufferingSession session;
    session.SetTarget(size_t{1} << 32, OPAL_STREAM_VIDEO);  // a total of 0
    EXPECT_EQ(0u, PercentOf(session, 50));
    session.SetTarget(100000000, OPAL_STREAM_VIDEO);
    EXPECT_EQ(7u, PercentOf(session, 50000000));  // times 100 is 705032704 in 32 bits
}

}  // namespace
}  // namespace opal::test
