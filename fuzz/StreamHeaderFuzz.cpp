// The first bytes of a media file, asked for everything they may hold.

#include <string>

#include "Common/Assert.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    StreamHeaderParser parser;
    const OPALError parsed = parser.Parse(data, static_cast<int64_t>(size));
    int64_t value = 0;
    const OPALError offset = parser.GetSegmentDataOffset(value);
    OPAL_ASSERT((parsed == OPAL_OK) == (offset == OPAL_OK), "an offset once parsed");
    OPAL_ASSERT(value >= 0 && value <= static_cast<int64_t>(size), "the payload is in the bytes");
    (void)parser.FindCuesPosition(value);
    (void)parser.GetDurationMs(value);
    (void)parser.GetDefaultDuration(value);
    AudioStreamInfo info;
    if (parser.GetAudioInfo(info) == OPAL_OK)
        OPAL_ASSERT(info.codecID.size() <= 256 && info.codecPrivate.GetSize() <= size, "bounded");
    std::string name;
    qutl::MemoryBuffer<unsigned char> font;
    (void)parser.GetFontName(name);
    (void)parser.GetFontData(font);
    OPAL_ASSERT(name.size() <= size && font.GetSize() <= size, "bounded");
    uint64_t id = 0, total = 0;
    (void)StreamHeaderParser::ReadElementHeader(data, static_cast<int64_t>(size), id, total);
    return 0;
}
