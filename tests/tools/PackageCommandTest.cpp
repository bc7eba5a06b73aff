// The program itself: exit codes, and what it prints on a pipe.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "PackageSupport.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {
namespace {

struct Outcome {
    int code = -1;
    std::string out;
    std::string errors;
};

Outcome RunProgram(const test::TemporaryDirectory& folder, const std::string& arguments) {
    const std::string errors = folder.File("stderr");
    const std::string command = "cd '" + folder.Path() + "' && '" OPAL_PACKAGE_PROGRAM "' " +
                                arguments + " 2>'" + errors + "'";
    Outcome outcome;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    size_t count = 0;
    while (pipe != nullptr && (count = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        outcome.out.append(buffer, count);
    }
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    const auto bytes = test::ReadBytes(errors);
    outcome.errors.assign(bytes.begin(), bytes.end());
    return outcome;
}

TEST(PackageCommand, MakesDumpsAndPointsElsewhere) {
    test::TemporaryDirectory folder;
    const Outcome made = RunProgram(folder, "-o film --duration 1 --levels 100k:96x64 --audio fra");
    ASSERT_EQ(made.code, 0) << made.errors;
    EXPECT_EQ(made.errors, "");
    EXPECT_EQ(made.out.find('\r'), std::string::npos) << "a pipe gets plain lines";
    EXPECT_NE(made.out.find("100 %\n"), std::string::npos) << made.out;
    EXPECT_NE(made.out.find("http://127.0.0.1:8090"), std::string::npos) << made.out;

    const Outcome dumped = RunProgram(folder, "--dump film/audio0-fra.mka");
    EXPECT_EQ(dumped.code, 0) << dumped.errors;
    EXPECT_NE(dumped.out.find("CodecID: A_AAC"), std::string::npos);

    EXPECT_EQ(RunProgram(folder, "--manifest film --base-url http://tv:99").code, 0);
    const auto manifest = test::ReadBytes(folder.File("film/presentation.smil"));
    EXPECT_NE(std::string(manifest.begin(), manifest.end()).find("src=\"http://tv:99/level0"),
              std::string::npos);
}

TEST(PackageCommand, ExitCodesTellWhatWentWrong) {
    test::TemporaryDirectory folder;
    folder.Write("noise.mp4", std::string(5000, 'x'));
    const struct {
        const char* arguments;
        int code;
        const char* error;
    } cases[] = {
        {"--help", 0, ""},
        {"", 2, "-o"},
        {"--fish", 2, "--fish"},
        {"-o f --duration 0", 2, "--duration"},
        {"-o f --duration 90000", 2, "--duration"},
        {"-o f --levels x", 2, "RATE:WIDTHxHEIGHT"},
        {"-o f --subtitles a.srt", 2, "a.srt"},
        {"-o f --copy", 2, "--copy"},
        {"-o f --test-film noise.mp4", 2, "--test-film"},
        {"-o f --audio-bitrate much", 2, "much"},
        {"-o f none.mp4", 1, "none.mp4"},
        {"-o f noise.mp4", 3, "noise.mp4"},
        {"--manifest f", 1, "presentation.json"},
        {"--dump none.mkv", 1, "none.mkv"},
        {"--dump noise.mp4", 4, ""},
        {"--dump .", 4, ""},
    };
    for (const auto& test : cases) {
        const Outcome outcome = RunProgram(folder, test.arguments);
        EXPECT_EQ(outcome.code, test.code) << test.arguments << ": " << outcome.errors;
        EXPECT_NE(outcome.errors.find(test.error), std::string::npos)
            << test.arguments << ": " << outcome.errors;
    }
}

}  // namespace
}  // namespace opal::package
