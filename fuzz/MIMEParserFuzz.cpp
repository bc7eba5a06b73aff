// A multipart reply, and one with these bytes for bodies, whole and in pieces, fetched as a request
// does: the parts must be the same.

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
    for (const size_t pieceSize : {std::max<size_t>(size, 1), size_t{3}})
        (void)Parts(data, size, pieceSize);

    // As bodies of a reply. What looks like another boundary line in them is learnt as one when it
    // begins a piece, so that the cuts would matter; so they would where the end of a body and the
    // boundary behind it make an empty line together, hence the letters.
    const std::string body = 'x' + std::string(reinterpret_cast<const char*>(data), size) + 'x';
    if (body.find("\r\n--") != std::string::npos)
        return 0;
    const std::string half = body.substr(0, size / 2 + 1) + 'x', line = "\r\n--B",
                      head = "\r\nA: 1\r\n\r\n";
    const std::string reply = line + head + half + line + head + body + line + "--\r\n";
    const auto* bytes = reinterpret_cast<const uint8_t*>(reply.data());
    const std::vector<std::string> whole = Parts(bytes, reply.size(), reply.size());
    OPAL_ASSERT(whole.size() >= 2 && whole[0] == half, "the first part is the first body");
    for (const size_t pieceSize : {size_t{1}, size_t{3}, size_t{16}})
        OPAL_ASSERT(Parts(bytes, reply.size(), pieceSize) == whole, "same parts however cut");
    return 0;
}
