#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_array.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "Common/MemoryBuffer.h"
#include "StreamingReader/HTTPFile/ByteRange.h"

/// Finds the part bodies of a multipart reply while it arrives in arbitrary pieces. A scanner by
/// value, not a MIME library: part headers are skipped unread, and the boundary is learnt from the
/// first boundary line, which has to be preceded by "\r\n". A part is there once the boundary
/// behind it has arrived.
///
/// Deliberate: an empty line within a body yields one part more, from there to the same boundary.
/// So does one that an empty body, or one that ends with a line end, forms with the boundary behind
/// it, up to the boundary after that; unless the reply was parsed between the two boundaries.
///
/// Call AddData, GetPartCount, then GetNextPart that many times: a later parse forgets the parts
/// that were not fetched. The work is linear in the reply, however it is cut and whatever it holds.
///
/// Threading: none; it belongs to its request.
/// Ownership: keeps all bytes of the reply until Reset or destruction.
/// Units: bytes, at most 32 bits of them.
/// Errors: bytes that form no part give none. AddData throws std::bad_alloc, or std::length_error
/// beyond 32 bits, and then holds what it held before.
class MIMEParser : boost::noncopyable {
  public:
    MIMEParser() = default;
    virtual ~MIMEParser();

    void AddData(const void* bytes, size_t size);
    size_t GetPartCount();
    /// Copies the oldest part's bytes out and removes it. 0 for success, else there was none and
    /// `part` is left empty.
    int GetNextPart(qutl::MemoryBuffer<unsigned char>& part);
    void Reset();

    /// Bytes added since the last Reset.
    uint32_t GetDataLength() const { return dataLength; }

  private:
    bool FindBoundary();
    void Parse();
    void CollectParts();
    bool Matches(uint32_t position, const char* text, uint32_t size) const;
    bool FindText(const char* text, uint32_t size, uint32_t& position) const;
    bool FindPartEnd(uint32_t& position) const;

    uint32_t scanPosition = 0;
    uint32_t dataLength = 0;
    uint32_t capacity = 0;
    boost::scoped_array<unsigned char> data;
    bool dirty = false;
    std::deque<ByteRange> parts;

    // What is known of the reply from scanPosition on, so that no arrival searches it anew.
    bool m_boundaryKnown = false;
    bool m_bodyKnown = false;
    uint32_t m_boundaryLine = 0;    ///< where to look on for the boundary's line, or where it is
    uint32_t m_lineSearch = 0;      ///< where to look on for that line's end
    uint32_t m_boundaryLength = 0;  ///< of the text behind "\r\n--"
    uint32_t m_firstBody = 0;       ///< where to look on for the first body, or where it starts
    uint32_t m_endSearch = 0;       ///< no part ends before here
};
