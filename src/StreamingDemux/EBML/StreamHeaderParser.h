#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "StreamingDemux/EBML/AudioStreamInfo.h"

class EBMLElement;
class EBMLSchema;
class EBMLTree;

/// Reads the first bytes of a media file: what the stream is, and where its index lies. The bytes
/// are a prefix of the file; what they do not cover reads as absent.
///
/// Threading: none; belongs to the thread that opens the stream.
/// Ownership: the bytes given to Parse are not copied and must outlive the last query.
/// Units: milliseconds, unless a name says otherwise; file offsets in bytes.
/// Errors: -1 for an absent element, where nothing else is said.
class StreamHeaderParser : boost::noncopyable {
  public:
    StreamHeaderParser();
    ~StreamHeaderParser();

    /// -2 for no data, -1 if it begins with neither an EBML header nor a Segment, or ends before
    /// the Segment's payload.
    OPALError Parse(const uint8_t* data, int64_t size);
    /// File offset of the Segment's first payload byte. -3 before Parse has succeeded.
    OPALError GetSegmentDataOffset(int64_t& offset) const;
    /// File offset of the Cues; 0 with success when the SeekHead does not list them. -3 before
    /// Parse has succeeded, -9 without a SeekHead.
    OPALError FindCuesPosition(int64_t& offset) const;
    /// -4 before Parse has succeeded. Single-precision arithmetic, deliberately: it loses
    /// milliseconds on long streams, and reported durations depend on it.
    OPALError GetDurationMs(int64_t& duration) const;
    /// Of the first track, if it is an audio track. `info` is untouched on failure.
    OPALError GetAudioInfo(AudioStreamInfo& info) const;
    /// Nanoseconds a frame, of the first track, if it is a video track.
    OPALError GetDefaultDuration(int64_t& duration) const;
    /// Of the first attachment, if it is a TrueType font.
    OPALError GetFontName(std::string& name) const;
    OPALError GetFontData(qutl::MemoryBuffer<unsigned char>& data) const;
    void Reset();

    /// Reads one element header out of any tree: identifier, and length of header and payload
    /// together. Bytes that are no header give 0 for what cannot be read, with success. The first
    /// form takes for granted that 16 bytes can be read at `start`. -2 for null.
    static OPALError ReadElementHeader(const uint8_t* start, uint64_t& id, uint64_t& totalSize);
    static OPALError ReadElementHeader(const uint8_t* start, int64_t available, uint64_t& id,
                                       uint64_t& totalSize);

  private:
    EBMLElement* FindTrack(uint64_t type) const;
    EBMLElement* FindFont() const;

    boost::scoped_ptr<EBMLSchema> m_schema;
    boost::shared_ptr<EBMLTree> m_tree;
    int64_t m_segmentDataOffset = 0;
};
