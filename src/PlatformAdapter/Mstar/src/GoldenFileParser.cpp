#include <memory>

#include "Common/ObjectFactory.h"
#include "PlatformAdapter/Mstar/GoldenFiles.h"
#include "StreamingReader/HTTPFile/HTTPRequest.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace {

constexpr size_t kRecordSize = 40;
constexpr size_t kTimeHigh = 8;
constexpr size_t kTimeLow = 12;
constexpr size_t kBlockSize = 28;
constexpr size_t kCrc = 32;
constexpr uint64_t kUnitsPerMs = 10000;
// A film of ten hours has less than two million blocks.
constexpr int64_t kMostBytes = 128 << 20;

uint32_t WordAt(const unsigned char* bytes) {
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[3]) << 24;
}

}  // namespace

bool GoldenFileParser::Load(const std::string& url, const opal::StopSignal* stop) {
    m_index = 0;
    m_size = 0;
    m_file.Resize(0, false);
    const std::unique_ptr<IHTTPFile> file(ObjectFactory::Instance().NewHTTPFile(false));
    int64_t size = 0;
    HTTPRequest request;
    if (!file)
        return false;
    file->SetStopSignal(stop);
    if (file->Open(url) != OPAL_OK || file->GetSize(size) != OPAL_OK || size < 1 ||
        size > kMostBytes)
        return false;
    if (file->RequestRange(0, size, nullptr) != OPAL_OK ||
        file->GetCompletedRequest(request, false) != OPAL_OK || !request.GetData() ||
        request.GetData()->GetSize() != static_cast<size_t>(size))
        return false;
    m_file.Assign(request.GetData()->GetData(), static_cast<size_t>(size), kRecordSize, true);
    if (m_file.IsEmpty())
        return false;
    m_size = static_cast<size_t>(size);
    return true;
}

bool GoldenFileParser::First(const GoldenRecord*& out) {
    m_index = 0;
    return Next(out);
}

bool GoldenFileParser::Next(const GoldenRecord*& out) {
    const size_t offset = m_index * kRecordSize;
    out = nullptr;
    if (m_size <= offset)
        return false;
    const unsigned char* bytes = m_file.GetData() + offset;
    // The high word comes first, although the words are little-endian.
    const uint64_t time =
        static_cast<uint64_t>(WordAt(bytes + kTimeHigh)) << 32 | WordAt(bytes + kTimeLow);
    m_record.timestamp = static_cast<int64_t>(time / kUnitsPerMs);
    m_record.size = WordAt(bytes + kBlockSize);
    m_record.crc = WordAt(bytes + kCrc);
    out = &m_record;
    ++m_index;
    return true;
}

bool GoldenFileParser::Find(int64_t msTimestamp, const GoldenRecord*& out) {
    for (bool found = First(out); found; found = Next(out)) {
        if (out->timestamp == msTimestamp)
            return true;
    }
    return false;
}
