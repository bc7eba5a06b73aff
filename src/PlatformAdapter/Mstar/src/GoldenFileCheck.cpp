#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"

#include <boost/make_shared.hpp>
#include <cstdio>

#include "Common/Mutex.h"
#include "Common/StreamKinds.h"

namespace opal {
namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7u;
constexpr uint32_t kTopBit = 0x80000000u;

uint32_t ReverseBits(uint32_t value, int bits) {
    uint32_t reversed = 0;
    for (int i = 0; i < bits; ++i) {
        reversed = (reversed << 1) | (value & 1u);
        value >>= 1;
    }
    return reversed;
}

constexpr size_t kMostTimes = 1000;

// What people who know the television's logs look for.
struct Messages {
    const char* before;  // each line
    const char* notFound;
    const char* size;
    const char* goldenSize;
    const char* crc;
    const char* goldenCrc;
};
constexpr Messages kVideoMessages = {"",
                                     ") not found in Video goldfile: ",
                                     "\tERROR: blocksize from cluster fragment:  ",
                                     "\t       does not match golden file value: ",
                                     "\tERROR: CRC calculated from blockBuffer: ",
                                     "\t       does not match golden file CRC:  "};
constexpr Messages kAudioMessages = {"\n",
                                     ") not found in Audio goldfile: ",
                                     "\tERROR: blocksize from cluster fragment:        ",
                                     "\t       does not match audio golden file value: ",
                                     "\tERROR: CRC calculated from blockBuffer:      ",
                                     "\t       does not match audio golden file CRC: "};

/// All that is known of the blocks of one kind.
struct Kind {
    explicit Kind(const Messages& texts) : messages(texts) {}
    const Messages& messages;
    std::atomic<uint32_t> errors{0};
    std::atomic<bool> verified{false};
    Mutex mutex;
    GoldenFileList files OPAL_GUARDED_BY(mutex);
    GoldenVerification verification OPAL_GUARDED_BY(mutex);
};

Kind& KindOf(OPALStreamType type) {
    static Kind video(kVideoMessages);
    static Kind audio(kAudioMessages);
    static Kind subtitle(kAudioMessages);
    Kind* const kind = SelectByKind(type, video, audio, subtitle);
    return kind ? *kind : video;
}

bool Compare(Kind& kind, const GoldenRecord& record, const CrcTable& table, const BlockNode& block,
             bool last) {
    const Messages& texts = kind.messages;
    const size_t size = block.data.GetSize();
    const bool sizeFits = size == record.size;
    if (!sizeFits && last) {
        std::printf("%s%s%zu\n%s%s%u\n", texts.before, texts.size, size, texts.before,
                    texts.goldenSize, record.size);
        ++kind.errors;
    }
    const uint32_t crc = CalculateCrc(table, block.data.GetData(), size);
    if (crc == record.crc)
        return sizeFits;
    if (last) {
        std::printf("%s%s%u\n%s%s%u\n", texts.before, texts.crc, crc, texts.before, texts.goldenCrc,
                    record.crc);
        ++kind.errors;
    }
    return false;
}

}  // namespace

void FillCrcTable(CrcTable& table) {
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t remainder = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder << 1) ^ ((remainder & kTopBit) ? kPolynomial : 0u);
        table[i] = remainder;
    }
}

uint32_t CalculateCrc(const CrcTable& table, const uint8_t* data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        const uint32_t index = (crc >> 24) ^ ReverseBits(data[i], 8);
        crc = (crc << 8) ^ table[index];
    }
    return ~ReverseBits(crc, 32);
}

std::atomic<uint32_t>& VideoErrorCount() {
    return KindOf(OPAL_STREAM_VIDEO).errors;
}

std::atomic<uint32_t>& AudioErrorCount() {
    return KindOf(OPAL_STREAM_AUDIO).errors;
}

std::atomic<uint32_t>& SubtitleErrorCount() {
    return KindOf(OPAL_STREAM_SUBTITLE).errors;
}

bool CheckBlock(OPALStreamType type, const GoldenFileList& files, const CrcTable& table,
                const BlockNode& block) {
    Kind& kind = KindOf(type);
    bool seen = false;
    for (size_t i = 0; i < files.size(); ++i) {
        if (!files[i])
            continue;
        seen = true;
        const GoldenRecord* record = nullptr;
        if (!files[i]->Find(block.timecode, record))
            continue;
        if (Compare(kind, *record, table, block, i + 1 == files.size()))
            return true;
    }
    if (!seen)
        return true;
    // Also said of a block that was found and did not fit; deliberate.
    std::printf("%s\tERROR: timestamp (%lld%s\n", kind.messages.before,
                static_cast<long long>(block.timecode), kind.messages.notFound);
    ++kind.errors;
    return false;
}

bool IsVerified(OPALStreamType type) {
    return KindOf(type).verified;
}

void UpdateGoldenFiles(OPALStreamType type, GoldenFileList& files) {
    Kind& kind = KindOf(type);
    MutexLock lock(kind.mutex);
    files = kind.files;
}

void NoteVerified(OPALStreamType type, const BlockNode& block, bool passed) {
    Kind& kind = KindOf(type);
    MutexLock lock(kind.mutex);
    ++kind.verification.blocks;
    if (passed)
        return;
    ++kind.verification.mismatches;
    if (kind.verification.mismatchedAt.size() < kMostTimes)
        kind.verification.mismatchedAt.push_back(block.timecode);
}

int VerifiedFlushResult(OPALStreamType type) {
    Kind& kind = KindOf(type);
    if (kind.errors == 0)
        return HAB_OK;
    MutexLock lock(kind.mutex);
    ++kind.verification.flushes;
    return HAB_FAIL;
}

}  // namespace opal

bool GoldenFiles_Attach(OPALStreamType type, const std::string& url) {
    const auto file = boost::make_shared<GoldenFileParser>();
    if (!file->Load(url))
        return false;
    opal::Kind& kind = opal::KindOf(type);
    opal::MutexLock lock(kind.mutex);
    kind.files.push_back(file);
    kind.verified = true;
    return true;
}

GoldenVerification GoldenFiles_GetVerification(OPALStreamType type) {
    opal::Kind& kind = opal::KindOf(type);
    opal::MutexLock lock(kind.mutex);
    return kind.verification;
}

void GoldenFiles_DetachAll() {
    for (const OPALStreamType type : {OPAL_STREAM_VIDEO, OPAL_STREAM_AUDIO, OPAL_STREAM_SUBTITLE}) {
        opal::Kind& kind = opal::KindOf(type);
        opal::MutexLock lock(kind.mutex);
        kind.verified = false;
        kind.files.clear();
        kind.verification = GoldenVerification();
        kind.errors = 0;
    }
}
