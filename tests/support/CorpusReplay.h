#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using FuzzTarget = int(const uint8_t* data, size_t size);

namespace opal::test {

/// Runs each fuzz target over the files of its corpus folder, of which there are three at least:
/// whole and, with `cuts`, cut at that many lengths.
inline void ReplayCorpora(const std::vector<std::pair<const char*, FuzzTarget*>>& targets,
                          size_t cuts) {
    const std::filesystem::path corpora = OPAL_CORPUS_DIR;
    for (const auto& [name, target] : targets) {
        size_t files = 0;
        for (const auto& entry : std::filesystem::directory_iterator(corpora / name)) {
            SCOPED_TRACE(entry.path().string());
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes(std::istreambuf_iterator<char>(file), {});
            const size_t step = std::max<size_t>(cuts == 0 ? bytes.size() : bytes.size() / cuts, 1);
            testing::internal::CaptureStdout();  // settings and the player's layer talk
            for (size_t size = bytes.size();; size -= step) {
                // On the heap and no longer than it is, so that a sanitizer sees what is beyond.
                const std::unique_ptr<uint8_t[]> cut(new uint8_t[size]);
                std::copy_n(bytes.begin(), size, cut.get());
                EXPECT_EQ(target(cut.get(), size), 0) << size;
                if (size <= step)
                    break;
            }
            (void)testing::internal::GetCapturedStdout();
            ++files;
        }
        EXPECT_GE(files, 3u) << name;
    }
}

}  // namespace opal::test
