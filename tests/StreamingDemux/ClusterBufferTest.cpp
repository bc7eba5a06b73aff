#include <gtest/gtest.h>

#include <memory>

#include "StreamingDemux/EBML/IClusterBuffer.h"

namespace opal::test {
namespace {

class ClusterBufferTest : public testing::Test {
  protected:
    OPALError Write(size_t size, int32_t index = 0) {
        m_data.Resize(size, true);
        ClusterInfo info;
        info.duration = 2000;
        info.clusterIndex = index;
        return m_buffer->Write(m_data, info);
    }

    qutl::MemoryBuffer<unsigned char> m_data;
    ClusterInfo m_info;
    std::unique_ptr<IClusterBuffer> m_buffer{NewClusterBuffer(100)};
};

TEST_F(ClusterBufferTest, BytesAreHandedOverInOrder) {
    m_data.Resize(40, true);
    const unsigned char* storage = m_data.GetData();
    m_info.clusterIndex = 6;
    ASSERT_EQ(m_buffer->Write(m_data, m_info), OPAL_OK);
    EXPECT_TRUE(m_data.IsEmpty());
    ASSERT_EQ(Write(60, 7), OPAL_OK) << "exactly the free bytes";
    EXPECT_EQ(Write(1, 8), OPAL_ERROR_BUFFER_FULL);
    EXPECT_EQ(m_data.GetSize(), 1u) << "stays with the caller";

    ASSERT_EQ(m_buffer->Read(m_data, m_info), OPAL_OK);
    EXPECT_EQ(m_data.GetData(), storage);
    EXPECT_EQ(m_info.clusterIndex, 6);
    ASSERT_EQ(Write(1, 9), OPAL_OK);
    EXPECT_EQ(m_buffer->Clear(), OPAL_OK);
    EXPECT_EQ(m_buffer->GetFreeBytes(), m_buffer->GetCapacity());
    EXPECT_EQ(m_buffer->GetBufferedDuration(), 0);
    EXPECT_EQ(m_buffer->Read(m_data, m_info), OPAL_ERROR_NO_MEMORY);
    EXPECT_TRUE(m_data.IsEmpty());
    EXPECT_EQ(m_info.streamType, -1);
    EXPECT_EQ(m_info.clusterIndex, -1);
}

TEST_F(ClusterBufferTest, DurationLimit) {
    m_buffer->SetMaxDuration(6000);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(Write(1), OPAL_OK);
    EXPECT_EQ(m_buffer->GetBufferedDuration(), 6000);
    EXPECT_EQ(Write(1), OPAL_ERROR_BUFFER_FULL);
    EXPECT_EQ(Write(0), OPAL_ERROR_INVALID_ARGUMENT) << "before any fill test";
    for (const int64_t noLimit : {0, -1}) {
        m_buffer->SetMaxDuration(noLimit);
        EXPECT_EQ(Write(1), OPAL_OK);
    }
}

TEST_F(ClusterBufferTest, CapacityCountsIn32Bits) {
    EXPECT_EQ(NewClusterBuffer(0), nullptr);
    EXPECT_EQ(NewClusterBuffer(size_t{1} << 32), nullptr);
    const std::unique_ptr<IClusterBuffer> buffer(NewClusterBuffer((size_t{1} << 32) + 7));
    EXPECT_EQ(buffer->GetCapacity(), 7u);
}

}  // namespace
}  // namespace opal::test
