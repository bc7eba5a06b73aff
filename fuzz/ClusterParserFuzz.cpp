// One cluster, walked forward, and walked backward by a second parser: both must see the same.

#include <memory>
#include <string>
#include <vector>

#include "Common/Assert.h"
#include "StreamingDemux/EBML/IClusterParser.h"

namespace {

std::unique_ptr<IClusterParser> Load(const uint8_t* data, size_t size, OPALError& result) {
    std::unique_ptr<IClusterParser> parser(NewClusterParser());
    qutl::MemoryBuffer<unsigned char> buffer;
    buffer.Assign(data, size, 0, false);
    result = parser->SetCluster(buffer, 1);
    return parser;
}

std::string Describe(const BlockNode& block, OPALError result) {
    std::string text = std::to_string(result);
    if (result != OPAL_OK)
        return text;
    OPAL_ASSERT(block.data.GetSize() > 3, "payload and padding");
    OPAL_ASSERT(block.level == 1, "level is the tag");
    text += ' ' + std::to_string(block.timecode) + ' ' + std::to_string(block.duration) + ' ' +
            std::to_string(block.flags) + ' ';
    return text.append(reinterpret_cast<const char*>(block.data.GetData()), block.data.GetSize());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OPALError forwardResult = OPAL_OK, backwardResult = OPAL_OK;
    const auto forward = Load(data, size, forwardResult);
    const auto backward = Load(data, size, backwardResult);
    OPAL_ASSERT(forwardResult == backwardResult, "same cluster, same result");
    if (forwardResult != OPAL_OK) {
        BlockNode ignored;
        (void)forward->GetNextBlock(ignored, 0);
        (void)backward->GetPreviousBlock(ignored, 0);
        return 0;
    }
    BlockNode block;
    // A block that fails does not end the walk, and fails like the end; so the steps are counted,
    // at least two bytes a group.
    std::vector<std::string> steps;
    for (size_t i = 0; i <= size / 2; ++i) {
        const OPALError result = forward->GetNextBlock(block, 3);
        steps.push_back(Describe(block, result));
    }
    for (size_t i = 0; i <= size / 2; ++i)
        (void)backward->GetPreviousBlock(block, 3);
    OPALError result = backward->GetNextBlock(block, 3);
    // The first group is where the backward walk ended: forward from there, the second is next.
    if (steps.size() > 1)
        OPAL_ASSERT(Describe(block, result) == steps[1], "second block from either side");
    return 0;
}
