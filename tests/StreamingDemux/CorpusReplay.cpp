// Runs the fuzz targets over their corpora, which hold what was once found and what is special.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "StreamingDemux/EbmlBytes.h"

using FuzzTarget = int(const uint8_t* data, size_t size);
extern "C" {
FuzzTarget FuzzClusterParser, FuzzStreamHeader, FuzzClusterIndex, FuzzSMILParser, FuzzMIMEParser,
    FuzzHTTPReply, FuzzSettings, FuzzAvcConversion, FuzzAudioConfig, FuzzTextRenderer;
}

namespace opal::test {
namespace {

TEST(CorpusReplay, EveryFile) {
    const std::pair<const char*, FuzzTarget*> targets[] = {{"cluster_parser", &FuzzClusterParser},
                                                           {"stream_header", &FuzzStreamHeader},
                                                           {"cluster_index", &FuzzClusterIndex},
                                                           {"smil_parser", &FuzzSMILParser},
                                                           {"mime_parser", &FuzzMIMEParser},
                                                           {"http_reply", &FuzzHTTPReply},
                                                           {"settings", &FuzzSettings},
                                                           {"avc_conversion", &FuzzAvcConversion},
                                                           {"audio_config", &FuzzAudioConfig},
                                                           {"text_renderer", &FuzzTextRenderer}};
    for (const auto& [name, target] : targets) {
        size_t files = 0;
        const std::filesystem::path folder = OPAL_CORPUS_DIR;
        for (const auto& entry : std::filesystem::directory_iterator(folder / name)) {
            SCOPED_TRACE(entry.path().string());
            std::ifstream file(entry.path(), std::ios::binary);
            const ExactBytes bytes(Bytes{std::istreambuf_iterator<char>(file), {}});
            testing::internal::CaptureStdout();  // settings and the player's layer talk
            const int result = target(bytes.data(), bytes.size());
            (void)testing::internal::GetCapturedStdout();
            EXPECT_EQ(result, 0);
            ++files;
        }
        EXPECT_GE(files, 3u) << name;
    }
}

}  // namespace
}  // namespace opal::test
