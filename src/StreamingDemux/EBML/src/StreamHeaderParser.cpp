#include "StreamingDemux/EBML/StreamHeaderParser.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <limits>

#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/EBMLTree.h"

using namespace opal::ebml;

namespace {

constexpr uint64_t kTrackTypeVideo = 1;
constexpr uint64_t kTrackTypeAudio = 2;
constexpr uint64_t kMaxCodecIDLength = 256;
const char kFontMimeType[] = "application/x-truetype-font";

// A child whose payload the buffer does not hold whole counts as absent. The pointers these give
// are valid up to the parent's next step, as the header's elements are not kept.

EBMLElement* FindComplete(EBMLElement& parent, uint64_t id) {
    EBMLElement* child = parent.FindFirstChild(id);
    return child && child->GetCompleteData() ? child : nullptr;
}

bool ReadUIntChild(EBMLElement& parent, uint64_t id, uint64_t& value) {
    const EBMLElement* child = FindComplete(parent, id);
    if (child)
        value = ReadUInt(child->GetData(), child->GetSize());
    return child != nullptr;
}

bool ReadFloatChild(EBMLElement& parent, uint64_t id, float& value) {
    const EBMLElement* child = FindComplete(parent, id);
    if (child)
        value = ReadFloat(child->GetData(), child->GetSize());
    return child != nullptr;
}

bool ReadStringChild(EBMLElement& parent, uint64_t id, std::string& value) {
    const EBMLElement* child = FindComplete(parent, id);
    if (child)
        value.assign(child->GetData(), child->GetData() + child->GetSize());
    return child != nullptr;
}

/// Truncates toward zero; what the integer cannot hold becomes its nearest value.
template <typename Integer>
Integer Truncate(float value) {
    // The upper limit itself rounds up to a power of two as a float, one beyond the integer.
    if (value >= static_cast<float>(std::numeric_limits<Integer>::max()))
        return std::numeric_limits<Integer>::max();
    if (value <= static_cast<float>(std::numeric_limits<Integer>::min()))
        return std::numeric_limits<Integer>::min();
    return static_cast<Integer>(value);
}

}  // namespace

StreamHeaderParser::StreamHeaderParser() : m_schema(new EBMLSchema) {
    for (const uint64_t id : {kSegment, kSeekHead, kSeek, kInfo, kTracks, kTrackEntry, kAudio,
                              kAttachments, kAttachedFile})
        m_schema->AddContainer(id);
    for (const uint64_t id :
         {kHeader, kSeekID, kSeekPosition, kTimecodeScale, kDuration, kCodecID, kCodecPrivate,
          kOutputSamplingFrequency, kSamplingFrequency, kChannels, kFileMimeType, kFileName})
        m_schema->AddData(id);
    m_schema->SetDefaultPolicy(EBMLElementPolicy_NoCache);
}

StreamHeaderParser::~StreamHeaderParser() = default;

OPALError StreamHeaderParser::Parse(const uint8_t* data, int64_t size) {
    Reset();
    if (!data || size <= 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    auto tree = boost::make_shared<EBMLTree>(m_schema.get(), data, size);
    if (tree->GetID() == kHeader) {
        const uint8_t* payload = tree->GetData();
        if (!payload || tree->GetSize() >= static_cast<uint64_t>(tree->GetRemaining(payload)))
            return OPAL_ERROR_GENERAL;
        // The Segment is taken to stand right behind, whatever the identifier there.
        const uint8_t* segment = payload + tree->GetSize();
        tree = boost::make_shared<EBMLTree>(m_schema.get(), segment, size - (segment - data));
    } else if (tree->GetID() != kSegment) {
        return OPAL_ERROR_GENERAL;
    }
    if (!tree->GetData())
        return OPAL_ERROR_GENERAL;
    m_tree = tree;
    m_segmentDataOffset = m_tree->GetData() - data;
    return OPAL_OK;
}

void StreamHeaderParser::Reset() {
    m_tree.reset();
    m_segmentDataOffset = 0;
}

OPALError StreamHeaderParser::GetSegmentDataOffset(int64_t& offset) const {
    offset = m_segmentDataOffset;
    return m_tree ? OPAL_OK : OPAL_ERROR_OUT_OF_RANGE;
}

OPALError StreamHeaderParser::FindCuesPosition(int64_t& offset) const {
    offset = 0;
    if (!m_tree)
        return OPAL_ERROR_OUT_OF_RANGE;
    EBMLElement* seekHead = m_tree->FindFirstChild(kSeekHead);
    if (!seekHead)
        return OPAL_ERROR_END_OF_DATA;
    constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();
    for (EBMLElement* seek = seekHead->FindFirstChild(kSeek); seek;
         seek = seekHead->FindNextChild(kSeek)) {
        uint64_t id = kNone;
        uint64_t position = kNone;
        (void)ReadUIntChild(*seek, kSeekID, id);
        (void)ReadUIntChild(*seek, kSeekPosition, position);
        if (id == kCues && position != kNone) {
            offset = static_cast<int64_t>(position + static_cast<uint64_t>(m_segmentDataOffset));
            break;
        }
    }
    return OPAL_OK;
}

OPALError StreamHeaderParser::GetDurationMs(int64_t& duration) const {
    duration = 0;
    if (!m_tree)
        return OPAL_ERROR_NOT_READY;
    EBMLElement* info = m_tree->FindFirstChild(kInfo);
    if (!info)
        return OPAL_ERROR_GENERAL;
    float ticks = 0;
    uint64_t scale = 0;
    (void)ReadFloatChild(*info, kDuration, ticks);
    (void)ReadUIntChild(*info, kTimecodeScale, scale);
    if (ticks == 0 || scale == 0)
        return OPAL_ERROR_GENERAL;
    duration = Truncate<int64_t>(ticks * static_cast<float>(scale) / 1000000.0f);
    return OPAL_OK;
}

EBMLElement* StreamHeaderParser::FindTrack(uint64_t type) const {
    EBMLElement* tracks = m_tree ? m_tree->FindFirstChild(kTracks) : nullptr;
    EBMLElement* entry = tracks ? tracks->FindFirstChild(kTrackEntry) : nullptr;
    const EBMLElement* trackType = entry ? FindComplete(*entry, kTrackType) : nullptr;
    if (!trackType || trackType->GetSize() != 1 || *trackType->GetData() != type)
        return nullptr;
    return entry;
}

OPALError StreamHeaderParser::GetAudioInfo(AudioStreamInfo& info) const {
    EBMLElement* track = FindTrack(kTrackTypeAudio);
    if (!track)
        return OPAL_ERROR_GENERAL;
    AudioStreamInfo result;
    if (!ReadStringChild(*track, kCodecID, result.codecID) ||
        result.codecID.size() > kMaxCodecIDLength)
        return OPAL_ERROR_GENERAL;
    if (const EBMLElement* codecPrivate = FindComplete(*track, kCodecPrivate)) {
        result.codecPrivate.Assign(codecPrivate->GetData(),
                                   static_cast<size_t>(codecPrivate->GetSize()), 0, false);
    }
    EBMLElement* audio = track->FindFirstChild(kAudio);
    if (!audio)
        return OPAL_ERROR_GENERAL;
    float frequency = 0;
    uint64_t channels = 0;
    if (!ReadFloatChild(*audio, kOutputSamplingFrequency, frequency) &&
        !ReadFloatChild(*audio, kSamplingFrequency, frequency))
        return OPAL_ERROR_GENERAL;
    if (!ReadUIntChild(*audio, kChannels, channels))
        return OPAL_ERROR_GENERAL;
    result.samplingFrequency = Truncate<int32_t>(frequency);
    result.channels = static_cast<uint32_t>(channels);
    info = result;
    return OPAL_OK;
}

OPALError StreamHeaderParser::GetDefaultDuration(int64_t& duration) const {
    EBMLElement* track = FindTrack(kTrackTypeVideo);
    uint64_t value = 0;
    if (!track || !ReadUIntChild(*track, kDefaultDuration, value))
        return OPAL_ERROR_GENERAL;
    duration = static_cast<int64_t>(value);
    return OPAL_OK;
}

EBMLElement* StreamHeaderParser::FindFont() const {
    EBMLElement* attachments = m_tree ? m_tree->FindFirstChild(kAttachments) : nullptr;
    EBMLElement* file = attachments ? attachments->FindFirstChild(kAttachedFile) : nullptr;
    std::string mimeType;
    if (!file || !ReadStringChild(*file, kFileMimeType, mimeType) || mimeType != kFontMimeType)
        return nullptr;
    return file;
}

OPALError StreamHeaderParser::GetFontName(std::string& name) const {
    EBMLElement* file = FindFont();
    return file && ReadStringChild(*file, kFileName, name) ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError StreamHeaderParser::GetFontData(qutl::MemoryBuffer<unsigned char>& data) const {
    EBMLElement* file = FindFont();
    const EBMLElement* font = file ? FindComplete(*file, kFileData) : nullptr;
    if (!font)
        return OPAL_ERROR_GENERAL;
    data.Assign(font->GetData(), static_cast<size_t>(font->GetSize()), 0, false);
    return data.GetSize() == font->GetSize() ? OPAL_OK : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamHeaderParser::ReadElementHeader(const uint8_t* start, uint64_t& id,
                                                uint64_t& totalSize) {
    return ReadElementHeader(start, 16, id, totalSize);
}

OPALError StreamHeaderParser::ReadElementHeader(const uint8_t* start, int64_t available,
                                                uint64_t& id, uint64_t& totalSize) {
    id = 0;
    totalSize = 0;
    if (!start)
        return OPAL_ERROR_INVALID_ARGUMENT;
    const int64_t maxLength = 8;
    const size_t idLength = ReadVInt(start, std::min(available, maxLength), false, id);
    uint64_t size = 0;
    const size_t sizeLength =
        ReadVInt(start + idLength, std::min(available - static_cast<int64_t>(idLength), maxLength),
                 true, size);
    totalSize = idLength + sizeLength + size;
    return OPAL_OK;
}
