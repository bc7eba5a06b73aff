#include "StreamingController/BufferingSession.h"

#include <gtest/gtest.h>

namespace opal::test {
namespace {

size_t PercentOf(const BufferingSession& session) {
    size_t percent = 999;
    EXPECT_EQ(OPAL_OK, session.GetPercent(percent));
    return percent;
}

TEST(BufferingSession, CountsReceivedAndRunningBytesOfAllStreams) {
    BufferingSession session;
    size_t percent = 999;
    EXPECT_EQ(OPAL_ERROR_NOT_READY, session.GetPercent(percent));
    EXPECT_EQ(999u, percent);
    session.SetTarget(600, OPAL_STREAM_VIDEO);
    session.SetTarget(300, OPAL_STREAM_AUDIO);
    session.SetTarget(100, OPAL_STREAM_SUBTITLE);
    session.SetTarget(77, OPAL_STREAM_TRICK);  // ignored
    EXPECT_EQ(0u, PercentOf(session));
    session.AddBytes(299, OPAL_STREAM_VIDEO);
    session.UpdatePercent(0);
    EXPECT_EQ(29u, PercentOf(session));
    session.UpdatePercent(101);
    EXPECT_EQ(40u, PercentOf(session));
    session.UpdatePercent(5000);
    EXPECT_EQ(100u, PercentOf(session));
    session.Reset();
    EXPECT_EQ(OPAL_ERROR_NOT_READY, session.GetPercent(percent));
}

TEST(BufferingSession, AStreamIsCompleteWithItsTargetOrWithoutOne) {
    BufferingSession session;
    EXPECT_TRUE(session.IsComplete());
    EXPECT_TRUE(session.IsStreamComplete(OPAL_STREAM_TRICK));
    session.SetTarget(10, OPAL_STREAM_VIDEO);
    EXPECT_FALSE(session.IsComplete());
    EXPECT_TRUE(session.IsStreamComplete(OPAL_STREAM_AUDIO));
    session.AddBytes(9, OPAL_STREAM_VIDEO);
    EXPECT_FALSE(session.IsStreamComplete(OPAL_STREAM_VIDEO));
    session.AddBytes(1, OPAL_STREAM_VIDEO);
    EXPECT_TRUE(session.IsComplete());
    session.SetTarget(10, OPAL_STREAM_AUDIO);
    session.AddBytes(10, OPAL_STREAM_AUDIO);
    session.ResetStream(OPAL_STREAM_AUDIO);
    EXPECT_TRUE(session.IsStreamActive(OPAL_STREAM_AUDIO));
    EXPECT_FALSE(session.IsComplete());
    session.UpdatePercent(0);  // the target of the stream that was reset still counts
    EXPECT_EQ(50u, PercentOf(session));
}

TEST(BufferingSession, FiguresAreOf32Bits) {
    BufferingSession session;
    session.SetTarget(0, OPAL_STREAM_VIDEO);
    session.UpdatePercent(50);
    EXPECT_EQ(0u, PercentOf(session));
    session.SetTarget(size_t{1} << 32, OPAL_STREAM_VIDEO);  // a total of 0
    session.UpdatePercent(50);
    EXPECT_EQ(0u, PercentOf(session));
    session.SetTarget(100000000, OPAL_STREAM_VIDEO);
    session.UpdatePercent(50000000);  // times 100 is 705032704 in 32 bits
    EXPECT_EQ(7u, PercentOf(session));
}

}  // namespace
}  // namespace opal::test
