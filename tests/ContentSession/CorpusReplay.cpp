// Runs the fuzz targets of the services over their corpora.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

using FuzzTarget = int(const uint8_t* data, size_t size);
extern "C" {
FuzzTarget FuzzEndpointFile, FuzzLogReply, FuzzSoapReply;
}

TEST(ServiceCorpusReplay, EveryFileWholeAndCut) {
    const std::pair<const char*, FuzzTarget*> targets[] = {{"endpoint_file", &FuzzEndpointFile},
                                                           {"log_reply", &FuzzLogReply},
                                                           {"soap_reply", &FuzzSoapReply}};
    for (const auto& [name, target] : targets) {
        size_t files = 0;
        const std::filesystem::path folder = OPAL_CORPUS_DIR;
        for (const auto& entry : std::filesystem::directory_iterator(folder / name)) {
            SCOPED_TRACE(entry.path().string());
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes(std::istreambuf_iterator<char>(file), {});
            const size_t step = std::max<size_t>(bytes.size() / 50, 1);
            for (size_t size = bytes.size() + step; size > step;) {
                size -= step;
                // On the heap and no longer than it is, so that a sanitizer sees what is beyond.
                const std::unique_ptr<uint8_t[]> cut(new uint8_t[size]);
                std::copy_n(bytes.begin(), size, cut.get());
                EXPECT_EQ(target(cut.get(), size), 0);
            }
            ++files;
        }
        EXPECT_GE(files, 3u) << name;
    }
}
