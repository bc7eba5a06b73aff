// A multipart reply, whole and in pieces, fetched as a request does: the parts must be the same.

#include <algorithm>
#include <string>
#include <vector>

#include "Common/Assert.h"
#include "StreamingReader/HTTPFile/MIMEParser.h"

namespace {

std::vector<std::string> Parts(const uint8_t* data, size_t size, size_t pieceSize) {
    MIMEParser parser;
    std::vector<std::string> parts;
    for (size_t position = 0; position < size; position += pieceSize) {
        parser.AddData(data + position, std::min(pieceSize, size - position));
        qutl::MemoryBuffer<unsigned char> part;
        for (size_t count = parser.GetPartCount(); count > 0; --count) {
            OPAL_ASSERT(parser.GetNextPart(part) == 0, "a part was promised");
            parts.emplace_back(reinterpret_cast<const char*>(part.GetData()), part.GetSize());
        }
        OPAL_ASSERT(parser.GetNextPart(part) != 0 && part.IsEmpty(), "no more parts");
    }
    return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string> whole = Parts(data, size, std::max<size_t>(size, 1));
    for (const size_t pieceSize : {1, 3, 16})
        OPAL_ASSERT(Parts(data, size, pieceSize) == whole, "same parts however cut");
    return 0;
}
