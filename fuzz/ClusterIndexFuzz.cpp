// A Cues element; every answer of the index is then asked for.

#include <limits>
#include <memory>

#include "Common/Assert.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::unique_ptr<IClusterIndex> index(NewClusterIndex(100000, 40));
    const OPALError parsed = index->Parse(data, static_cast<int64_t>(size));
    OPAL_ASSERT(parsed != OPAL_OK || index->GetCount() > 0, "an index has entries");
    OPAL_ASSERT(index->GetCount() <= size / 2, "two bytes an entry");
    ClusterIndexEntry entry;
    size_t frames = 0;
    for (size_t i = 0; i < index->GetCount(); ++i) {
        OPAL_ASSERT(index->GetEntry(i, entry) == OPAL_OK && entry.index == i, "entries in order");
        for (const int64_t time : {entry.time, entry.time / 2}) {
            if (index->FindByTime(time, entry) == OPAL_OK)
                OPAL_ASSERT(entry.index < index->GetCount(), "found within the index");
        }
        int64_t offset = 0;
        uint32_t frameSize = 0;
        for (size_t k = 0; k < index->GetFrameCount(i); ++k, ++frames)
            OPAL_ASSERT(index->GetFrame(i, k, offset, frameSize) == OPAL_OK, "frames are there");
    }
    OPAL_ASSERT(frames <= size, "two bytes a frame, each read once");
    (void)index->FindByTime(std::numeric_limits<int64_t>::min(), entry);
    (void)index->FindByTime(std::numeric_limits<int64_t>::max(), entry);
    return 0;
}
