#include "system/SessionFixture.h"

#include <chrono>
#include <sstream>
#include <thread>

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"

namespace opal::test {
namespace {

constexpr int64_t kClusterMs = 2000;
constexpr int64_t kTrickClusterMs = 6000;

/// An access unit of one NAL unit with its length in front; content differs from block to block.
std::vector<uint8_t> AccessUnit(size_t size, uint32_t seed) {
    std::vector<uint8_t> unit(std::max<size_t>(size, 16));
    for (size_t i = 0; i < unit.size(); ++i) {
        seed = seed * 1664525u + 1013904223u;
        unit[i] = static_cast<uint8_t>(seed >> 24);
    }
    const auto length = static_cast<uint32_t>(unit.size() - 4);
    for (int i = 0; i < 4; ++i)
        unit[static_cast<size_t>(i)] = static_cast<uint8_t>(length >> (8 * (3 - i)));
    return unit;
}

std::vector<package::Cluster> MakeClusters(int count, int64_t clusterMs, int64_t blockMs,
                                           size_t blockBytes, uint32_t seed, bool allKey) {
    std::vector<package::Cluster> clusters;
    for (int c = 0; c < count; ++c) {
        package::Cluster cluster;
        cluster.timeMs = c * clusterMs;
        for (int64_t at = 0; at + blockMs <= clusterMs; at += blockMs) {
            package::Block block;
            block.timeMs = cluster.timeMs + at;
            block.durationMs = blockMs;
            block.key = allKey || at == 0;
            block.data = AccessUnit(blockBytes, seed + static_cast<uint32_t>(block.timeMs));
            cluster.blocks.push_back(std::move(block));
        }
        clusters.push_back(std::move(cluster));
    }
    return clusters;
}

}  // namespace

SessionFixture::SessionFixture(int speed, tvset::Decoding decoding) : m_clock(speed) {
    AlgorithmConfig::Instance().Reset();
    tvset::control::Reset();
    tvset::Options options;
    options.decoding = decoding;
    options.clock = tvset::NewRealClock(speed);
    EXPECT_TRUE(tvset::Configure(options));
    tvset::control::Record(true);
    std::string error;
    EXPECT_TRUE(m_origin.Start(&error)) << error;
    delete NewStreamingController();  // registers the production objects
    m_player = std::make_unique<FinalizedController>();
}

SessionFixture::~SessionFixture() {
    m_origin.ClearFaults();
    m_player.reset();
    m_origin.Stop();
    tvset::control::Reset();
}

void SessionFixture::AddFile(const std::string& name, const package::TrackDescription& track,
                             std::vector<package::Cluster> clusters) {
    const package::Block& last = clusters.back().blocks.back();
    const int64_t duration = last.timeMs + last.durationMs;
    package::BuiltFile file = package::BuildFile(track, clusters, duration);
    m_origin.AddFile(name, std::string(file.bytes.begin(), file.bytes.end()));
    m_files[name] = std::move(file);
    m_media[name] = std::move(clusters);
}

void SessionFixture::Serve(const Presentation& presentation) {
    m_presentation = presentation;
    m_files.clear();
    m_media.clear();
    package::TrackDescription video;
    video.kind = package::TrackKind::Video;
    video.codecId = "V_MPEG4/ISO/AVC";
    const int64_t blockMs = 1000 / presentation.blocksPerSecond;
    video.defaultDurationNs = static_cast<uint64_t>(blockMs) * 1000000;
    for (size_t i = 0; i < presentation.levelKbps.size(); ++i) {
        const auto bytes = static_cast<size_t>(presentation.levelKbps[i] * blockMs / 8);
        AddFile("level" + std::to_string(i), video,
                MakeClusters(presentation.clusters, kClusterMs, blockMs, bytes,
                             static_cast<uint32_t>(100 * i), false));
    }
    if (presentation.trick) {
        video.defaultDurationNs = 1000000000;
        video.frameLists = true;
        const auto count = static_cast<int>((presentation.clusters * kClusterMs) / kTrickClusterMs);
        AddFile("trick", video, MakeClusters(count, kTrickClusterMs, 1000, 400, 7777, true));
    }
    package::TrackDescription audio;
    audio.kind = package::TrackKind::Audio;
    audio.codecId = "A_AAC";
    audio.codecPrivate = {0x12, 0x10};
    audio.samplingFrequency = 44100;
    audio.channels = 2;
    for (int i = 0; i < presentation.audioTracks; ++i)
        AddFile("audio" + std::to_string(i), audio,
                MakeClusters(presentation.clusters, kClusterMs, 40,
                             static_cast<size_t>(presentation.audioKbps * 40 / 8),
                             static_cast<uint32_t>(9000 + i), true));
    const std::string base = m_origin.Url("");
    m_origin.AddFile("film.smil", ManifestText(base));
}

std::string SessionFixture::ManifestText(const std::string& baseUrl) const {
    std::ostringstream out;
    const auto header = [this](const std::string& name) {
        return "<param name=\"header-request\" value=\"" +
               std::to_string(m_files.at(name).layout.headerSize) + "\"/>";
    };
    out << "<smil><body><par>";
    for (size_t i = 0; i < m_presentation.levelKbps.size(); ++i) {
        const std::string name = "level" + std::to_string(i);
        const int rate = m_presentation.levelKbps[i] * 1000;
        out << "<video src=\"" << baseUrl << name << "\" systemBitrate=\"" << rate << "\" width=\""
            << 320 * (i + 1) << "\" height=\"" << 180 * (i + 1) << "\">" << header(name)
            << "<param name=\"vbv\" value=\"" << 2 * rate << "\"/></video>";
    }
    if (m_presentation.trick)
        out << "<switch><video src=\"" << baseUrl
            << "trick\" systemBitrate=\"10000\" systemProfile=\"TavoPlusTrickTrack\">"
            << header("trick") << "</video></switch>";
    for (int i = 0; i < m_presentation.audioTracks; ++i) {
        const std::string name = "audio" + std::to_string(i);
        out << "<audio src=\"" << baseUrl << name << "\" xml:lang=\"" << (i == 0 ? "eng" : "ger")
            << "\">" << header(name) << "<param name=\"reservedBandwidth\" value=\""
            << m_presentation.audioKbps * 1000 << "\"/><param name=\"assetId\" value=\"" << 40 + i
            << "\"/></audio>";
    }
    out << "</par></body></smil>";
    return out.str();
}

OPALError SessionFixture::InitializeFrom(const std::string& manifest, OPALWriterModel model) {
    (void)m_player->SetNotify(&m_listener);  // Finalize has forgotten it
    return m_player->InitializeFromSMILFile(manifest, "US", "en", model);
}

void SessionFixture::StartPlaying(const Presentation& presentation) {
    Serve(presentation);
    ASSERT_EQ(Initialize(), OPAL_OK);
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    ASSERT_TRUE(
        m_listener.WaitFor(presentation.audioTracks > 0 ? "OnPlay 1 0 -1" : "OnPlay 1 -1 -1"));
}

bool SessionFixture::Eventually(const std::function<bool()>& condition,
                                std::chrono::seconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool SessionFixture::WaitForPosition(int64_t ms) {
    return Eventually([this, ms] {
        const auto positions = m_listener.Positions();
        return !positions.empty() && positions.back().ms >= ms;
    });
}

int64_t SessionFixture::FinalizeMs(const std::vector<OPALError>& answers) {
    const int speed = m_clock.SetFactor(1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(answers, testing::Contains(m_player->Finalize()));
    m_clock.SetFactor(speed);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begin)
        .count();
}

std::vector<SeenBlock> SessionFixture::Pushed(uint32_t streamType) {
    std::vector<SeenBlock> blocks;
    for (const tvset::control::JournalEntry& entry : tvset::control::Journal()) {
        if (entry.call == "MM_PushPayload" && entry.streamType == streamType && entry.result == 0)
            blocks.push_back({static_cast<int64_t>(entry.value), entry.size, entry.crc32});
    }
    return blocks;
}

uint32_t SessionFixture::Crc(const uint8_t* data, size_t size) {
    CrcTable table;
    FillCrcTable(table);
    return CalculateCrc(table, data, size);
}

std::vector<SeenBlock> SessionFixture::ExpectedBlocks(const std::string& file) const {
    const bool startCodes = file.rfind("audio", 0) != 0;
    std::vector<SeenBlock> blocks;
    for (const package::Cluster& cluster : m_media.at(file)) {
        for (const package::Block& block : cluster.blocks) {
            std::vector<uint8_t> bytes = block.data;
            if (startCodes) {
                const uint8_t startCode[] = {0, 0, 0, 1};
                std::copy(std::begin(startCode), std::end(startCode), bytes.begin());
            }
            blocks.push_back({block.timeMs, static_cast<uint32_t>(bytes.size()),
                              Crc(bytes.data(), bytes.size())});
        }
    }
    return blocks;
}

std::vector<std::string> SessionFixture::ClusterRequests() const {
    std::vector<std::string> requests;
    for (const origin::RequestRecord& record : m_origin.Log()) {
        const std::string name = record.path.substr(record.path.find_last_of('/') + 1);
        const auto file = m_files.find(name);
        if (file == m_files.end() || record.ranges.empty())
            continue;
        const auto& clusters = file->second.layout.clusters;
        for (size_t i = 0; i < clusters.size(); ++i) {
            if (record.ranges[0].first == static_cast<int64_t>(clusters[i].offset))
                requests.push_back(name + "/" + std::to_string(i));
        }
    }
    return requests;
}

}  // namespace opal::test
