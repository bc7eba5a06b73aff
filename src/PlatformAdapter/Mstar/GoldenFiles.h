#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/Export.h"
#include "Common/MemoryBuffer.h"
#include "Common/OPALStreamType.h"
#include "Common/StopSignal.h"

// Verification in a lab: golden files list time, size and CRC of every block of a known stream, and
// the HAB layers compare what arrives. Not installed: an application has no use for it.

/// What a golden file says of one block. Milliseconds, bytes.
struct GoldenRecord {
    int64_t timestamp = 0;
    uint32_t size = 0;
    uint32_t crc = 0;
};

/// Reads a golden file: records of 40 bytes and nothing else, of which a cut last one is read as if
/// zeros followed.
///
/// Threading: one thread at a time.
/// Ownership: a record lives until the next call.
class GoldenFileParser {
  public:
    virtual ~GoldenFileParser() = default;

    /// Fetches the whole file, which the signal ends. False, and nothing held, if that fails, or if
    /// the file is empty or too large.
    bool Load(const std::string& url, const opal::StopSignal* stop = nullptr);
    /// False, and null, at the end.
    bool First(const GoldenRecord*& out);
    bool Next(const GoldenRecord*& out);
    /// The first record of that time, wherever it stands.
    bool Find(int64_t msTimestamp, const GoldenRecord*& out);

  private:
    uint32_t m_index = 0;
    qutl::MemoryBuffer<unsigned char> m_file;  // and a record of zeros behind it
    size_t m_size = 0;
    GoldenRecord m_record;
};

/// A flush that failed because blocks before it were not as the golden files say.
struct GoldenFlush {
    uint64_t number = 0;  ///< from 1, among all flushes since the first file was attached
    int64_t after = -1;   ///< time of the last block checked before it, ms; -1 without one
};

/// What came of the blocks of a kind so far.
struct GoldenVerification {
    uint64_t blocks = 0;                     ///< checked
    uint64_t mismatches = 0;                 ///< of them not as the golden files say
    uint64_t flushes = 0;                    ///< that failed because of them
    std::vector<int64_t> mismatchedAt;       ///< times, ms, of the first thousand
    std::vector<GoldenFlush> failedFlushes;  ///< the first thousand
};

/// From now on the blocks of that kind are verified, in this session and in those to come: a block
/// passes if it fits any file attached. Trick play's blocks travel as video. False if the file
/// cannot be loaded, or the signal was raised meanwhile. Any thread.
OPAL_EXPORT bool GoldenFiles_Attach(OPALStreamType type, const std::string& url,
                                    const opal::StopSignal* stop = nullptr);
OPAL_EXPORT GoldenVerification GoldenFiles_GetVerification(OPALStreamType type);
/// Forgets files and counts. While no session runs.
OPAL_EXPORT void GoldenFiles_DetachAll();
