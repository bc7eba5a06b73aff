// A reply to a request of several ranges: header lines up to an empty one, then the body in pieces.
// The first byte tells how many ranges, the second how long each is and how long the pieces are.

#include <algorithm>
#include <memory>
#include <vector>

#include "Common/Assert.h"
#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"
#include "StreamingReader/HTTPFile/src/ContentLength.h"

namespace {

/// As libcurl hands bytes over: nothing may be read behind them.
std::unique_ptr<char[]> Exact(const uint8_t* data, size_t size) {
    std::unique_ptr<char[]> copy(new char[size]);
    std::copy(data, data + size, copy.get());
    return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const size_t count = 1 + data[0] % 5;
    const int64_t length = 1 + data[1] % 64;
    const size_t pieceSize = 1 + data[1] / 64 * 7;
    const uint8_t* const end = data + size;
    data += 2;
    while (data != end) {
        const uint8_t* const line = std::find(data, end, '\n');
        const size_t lineSize = static_cast<size_t>(std::min(line + 1, end) - data);
        int64_t number = -1;
        if (!opal::ReadContentLength(Exact(data, lineSize).get(), lineSize, number))
            return 0;
        OPAL_ASSERT(number == -1 || number > 0, "a length is one");
        data += lineSize;
        if (lineSize == 1)
            break;
    }

    std::vector<ByteRange> ranges;
    for (size_t i = 0; i < count; ++i)
        ranges.emplace_back(static_cast<int64_t>(i) * 1000, length);
    HTTPRequestInternal request(ranges, nullptr);
    for (uint64_t before = 0; data != end;) {
        const size_t piece = std::min(pieceSize, static_cast<size_t>(end - data));
        OPAL_ASSERT(request.Write(Exact(data, piece).get(), piece) == OPAL_OK, "taken");
        const uint64_t received = request.GetBytesReceived();
        OPAL_ASSERT(received >= before, "bytes stay");
        OPAL_ASSERT(received <= count * static_cast<uint64_t>(length), "no more than asked for");
        before = received;
        data += piece;
    }
    return 0;
}
