#include <gmock/gmock.h>

#include <thread>

#include "Common/StreamingTuning.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::origin::Fault;

namespace {

class BadInputTest : public SessionFixture {
  protected:
    void SetUp() override { StreamingTuning::OverrideTimeouts(2, 2); }
    void TearDown() override { StreamingTuning::OverrideTimeouts(60, 60); }

    /// Plays until the session fails or ends. The code it failed with, 0 if it came to its end.
    int Outcome() {
        OPALError result = Initialize();
        if (result == OPAL_OK)
            result = m_player->Play();
        if (result == OPAL_OK) {
            EXPECT_TRUE(Eventually([this] {
                return m_listener.Count("OnEndOfStream") + m_listener.Count("OnStop") > 0;
            }));
            result = m_player->Pause();  // answers the error of a terminated session
        }
        EXPECT_LT(FinalizeMs(), 3000);
        return result;
    }
};

std::string Nested(size_t depth) {
    std::string text = "<smil><body><par>";
    for (size_t i = 0; i < depth; ++i)
        text += "<switch>";
    return text;
}

}  // namespace

TEST_F(BadInputTest, Manifests) {
    Serve({});
    const struct {
        const char* what;
        std::string text;
        int code;
    } rows[] = {
        {"not XML",
         "\x7f"
         "ELF\x02\x01",
         -1},
        {"blank", " ", -1},
        {"wrong root", "<html><body><par/></body></html>", -1},
        {"no body", "<smil/>", -1},
        {"no video", "<smil><body><par><audio src=\"x\"/></par></body></smil>", -1},
        {"nested too deep", Nested(100000), -1},
        {"a level without a header size",
         "<smil><body><par><video src=\"" + m_origin.Url("level0") + "\"/></par></body></smil>",
         -1},
        {"a level that is not there",
         "<smil><body><par><video src=\"" + m_origin.Url("nothing") +
             "\"><param name=\"header-request\" value=\"100\"/></video></par></body></smil>",
         -1},
        {"a header size that is too small",
         "<smil><body><par><video src=\"" + m_origin.Url("level0") +
             "\"><param name=\"header-request\" value=\"40\"/></video></par></body></smil>",
         -1},
        {"a level on a server that refuses",
         "<smil><body><par><video src=\"http://127.0.0.1:1/level0\"><param "
         "name=\"header-request\" value=\"100\"/></video></par></body></smil>",
         -1},
        {"a level of no known protocol",
         "<smil><body><par><video src=\"gopher://x\"><param name=\"header-request\" "
         "value=\"100\"/></video></par></body></smil>",
         -1},
    };
    for (const auto& row : rows) {
        m_origin.AddFile("film.smil", row.text);
        m_listener.Clear();
        EXPECT_EQ(Outcome(), row.code) << row.what;
    }
    m_origin.AddFile("film.smil", "");
    EXPECT_EQ(Outcome(), -1) << "empty";
    m_origin.RemoveFile("film.smil");
    EXPECT_EQ(Outcome(), -12) << "missing";
    EXPECT_EQ(m_player->InitializeFromSMILFile("", "", "", OPAL_WRITER_MODEL_PUSH),
              OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(
        m_player->InitializeFromSMILFile("http://127.0.0.1:1/x", "", "", OPAL_WRITER_MODEL_PUSH),
        OPAL_ERROR_CONNECT);
    EXPECT_LT(FinalizeMs(), 3000);
}

TEST_F(BadInputTest, ServersThatMisbehaveAtAnOpenOrAtACluster) {
    Serve({});
    const auto& layout = m_files["level0"].layout;
    const auto cues = static_cast<int64_t>(layout.cuesOffset);
    const auto cluster = static_cast<int64_t>(layout.clusters[2].offset);
    const auto level = [](const Fault& fault) { return fault.On("level0"); };
    const struct {
        const char* what;
        Fault fault;
        int code;
    } rows[] = {
        {"503 at the header request", level(Fault::Status(503)).Head(), -1},
        {"404 at the header", level(Fault::Status(404)).Get().RangeStart(0), -1},
        {"reset at the index", level(Fault::ResetAt(9)).Get().RangeStart(cues), -1},
        {"reset at a cluster", level(Fault::ResetAt(99)).Get().RangeStart(cluster), -1},
        {"500 at a cluster", level(Fault::Status(500)).Get().RangeStart(cluster), -13},
        {"stall at a cluster", level(Fault::StallAt(50)).Get().RangeStart(cluster), -14},
        {"no length", level(Fault::WithoutHeader("Content-Length")).Head(), -1},
        {"a length of nothing", level(Fault::Header("Content-Length", "0")).Head(), -1},
        {"the manifest stalls", Fault::StallAt(10).On("film.smil").Get(), -14},
        {"short cluster", level(Fault::CloseAt(100)).Get().RangeStart(cluster), -1},
    };
    for (const auto& row : rows) {
        m_listener.Clear();
        m_origin.AddFault(row.fault);
        EXPECT_EQ(Outcome(), row.code) << row.what;
        m_origin.ClearFaults();
    }
}

// What is more than was asked for is cut off. A whole file in answer to a range is taken for the
// range, and its first bytes are no cluster. What follows a reply unasked spoils the next one.
TEST_F(BadInputTest, RepliesOfTheWrongLength) {
    Serve({});
    const opal::package::BuiltFile& file = m_files["level0"];
    const auto offset = static_cast<int64_t>(file.layout.clusters[2].offset);
    const auto size = static_cast<int64_t>(file.layout.clusters[2].size);
    Fault longer;
    longer.status = 206;
    longer.body = std::string(file.bytes.begin() + offset, file.bytes.begin() + offset + size) +
                  std::string(5000, 'x');
    m_origin.AddFault(longer.On("level0").Get().RangeStart(offset));
    EXPECT_EQ(Outcome(), 0) << "more than asked";
    EXPECT_EQ(Pushed(kVideo), ExpectedBlocks("level0"));

    m_origin.ClearFaults();
    m_listener.Clear();
    m_origin.AddFault(Fault::IgnoreRange().On("level0").Get().RangeStart(offset));
    EXPECT_EQ(Outcome(), -1) << "200 to a range";

    m_origin.ClearFaults();
    m_listener.Clear();
    m_origin.AddFault(Fault::ExtraBytes(5000).On("level0").Get().RangeStart(offset));
    EXPECT_THAT(Outcome(), testing::AnyOf(0, -1)) << "bytes behind the reply";
}

TEST_F(BadInputTest, GarbageInPlaceOfAClusterOrAnIndex) {
    Serve({});
    const opal::package::BuiltFile good = m_files["level0"];
    const auto serveWith = [&](uint64_t offset, uint64_t size, uint8_t byte) {
        std::string bytes(good.bytes.begin(), good.bytes.end());
        for (uint64_t i = offset; i < offset + size; ++i)
            bytes[i] = static_cast<char>(byte);
        m_origin.AddFile("level0", bytes);
        m_listener.Clear();
    };
    for (int byte : {0x00, 0xFF, 0x1F, 0xA0}) {
        serveWith(good.layout.clusters[1].offset, good.layout.clusters[1].size,
                  static_cast<uint8_t>(byte));
        EXPECT_EQ(Outcome(), -1) << "cluster " << byte;
        serveWith(good.layout.cuesOffset, good.layout.cuesSize, static_cast<uint8_t>(byte));
        EXPECT_LT(Outcome(), 0) << "index " << byte;
        serveWith(0, good.layout.headerSize, static_cast<uint8_t>(byte));
        EXPECT_LT(Outcome(), 0) << "header " << byte;
    }
}

// However short the file, the session fails with a code or plays what is there.
TEST_F(BadInputTest, AFileTruncatedAtEveryKilobyte) {
    Presentation film;
    film.levelKbps = {24};
    film.clusters = 3;
    Serve(film);
    const std::vector<uint8_t> bytes = m_files["level0"].bytes;
    ASSERT_GT(bytes.size(), 15000u);
    for (size_t size = 0; size < bytes.size(); size += 1024) {
        m_origin.AddFile("level0",
                         std::string(bytes.begin(), bytes.begin() + static_cast<int64_t>(size)));
        m_listener.Clear();
        EXPECT_LT(Outcome(), 0) << size << ": the index at the end is gone";
    }
}

// The nth request of a session stalls for ever: the session can be ended all the same.
TEST_F(BadInputTest, FinalizeIsPromptWhicheverRequestStalls) {
    StreamingTuning::OverrideTimeouts(60, 60);
    Serve({});
    for (size_t n = 1; n <= 14; ++n) {
        m_origin.ClearLog();
        m_listener.Clear();
        const uint64_t fault = m_origin.AddFault(Fault::HoldRequest().Nth(static_cast<int64_t>(n)));
        std::thread session([this] {
            if (Initialize() == OPAL_OK)
                (void)m_player->Play();
        });
        EXPECT_TRUE(m_origin.WaitForHeld(fault, 1, 20000)) << n;
        EXPECT_LT(FinalizeMs(), 3000) << n;
        session.join();
        m_origin.Release(fault);
        (void)m_player->Finalize();
    }
}
