// Runs the fuzz targets over their corpora, which hold what was once found and what is special.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

using FuzzTarget = int(const uint8_t* data, size_t size);
extern "C" {
FuzzTarget FuzzClusterParser, FuzzStreamHeader, FuzzClusterIndex, FuzzSMILParser, FuzzMIMEParser;
}

namespace opal::test {
namespace {

struct Corpus {
    const char* name;
    FuzzTarget* target;
};

void PrintTo(const Corpus& corpus, std::ostream* out) {
    *out << corpus.name;
}

class CorpusReplay : public testing::TestWithParam<Corpus> {};

TEST_P(CorpusReplay, EveryFile) {
    size_t files = 0;
    const std::filesystem::path folder = OPAL_CORPUS_DIR;
    for (const auto& entry : std::filesystem::directory_iterator(folder / GetParam().name)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
        // Exactly as large as the file, for the address sanitizer.
        const std::vector<uint8_t> bytes(content.begin(), content.end());
        SCOPED_TRACE(entry.path().filename().string());
        EXPECT_EQ(GetParam().target(bytes.data(), bytes.size()), 0);
        ++files;
    }
    EXPECT_GE(files, 3u);
}

INSTANTIATE_TEST_SUITE_P(Targets, CorpusReplay,
                         testing::Values(Corpus{"cluster_parser", &FuzzClusterParser},
                                         Corpus{"stream_header", &FuzzStreamHeader},
                                         Corpus{"cluster_index", &FuzzClusterIndex},
                                         Corpus{"smil_parser", &FuzzSMILParser},
                                         Corpus{"mime_parser", &FuzzMIMEParser}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace opal::test
