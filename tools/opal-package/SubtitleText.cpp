#include "opal-package/SubtitleText.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "opal-package/Error.h"
#include "opal-package/Presentation.h"
#include "opal-package/SubRip.h"
#include "opal-package/TextDecoder.h"

namespace opal::package {
namespace {

[[noreturn]] void Refuse(const std::string& path, const std::string& text) {
    throw PackageError(Failure::Refused, path + ": " + text);
}

std::string ContentOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in || content.bad())
        throw PackageError(Failure::InputOutput, path + ": cannot be read; is the name right?");
    return content.str();
}

bool IsSubRip(const std::string& path) {
    std::string ending = std::filesystem::path(path).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](char c) { return static_cast<char>(c | 0x20); });
    return ending == ".srt";
}

/// The file's first stream of texts.
std::vector<SubtitleText> ReadWithLibav(const std::string& path) {
    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0)
        Refuse(path, "is no subtitle file; SubRip and WebVTT are taken");
    const AvPtr<AVFormatContext> input(opened);
    (void)avformat_find_stream_info(opened, nullptr);  // texts can be read without
    TextDecoder decoder;
    int index = -1;
    for (unsigned i = 0; index < 0 && i < opened->nb_streams; ++i) {
        const AVStream& stream = *opened->streams[i];
        if (TextDecoder::IsText(stream) && decoder.Open(stream) >= 0)
            index = stream.index;
    }
    if (index < 0)
        Refuse(path, "holds no subtitle texts; SubRip and WebVTT are taken");
    std::vector<SubtitleText> texts;
    const AvPtr<AVPacket> packet(av_packet_alloc());
    while (packet && av_read_frame(opened, packet.get()) >= 0) {
        if (packet->stream_index == index && decoder.Decode(*packet, texts) < 0) {
            const int64_t timeMs =
                av_rescale_q(packet->pts, opened->streams[index]->time_base, AVRational{1, 1000});
            Refuse(path, "the text at " + std::to_string(timeMs) +
                             " ms is not UTF-8 text; convert it with: iconv -f WINDOWS-1252 "
                             "-t UTF-8 '" +
                             path + "'");
        }
        av_packet_unref(packet.get());
    }
    return texts;
}

}  // namespace

std::vector<SubtitleText> ReadSubtitleFile(const std::string& path) {
    const std::string content = ContentOf(path);
    // Of a file that people write by hand, a mistake is worth its line; libavformat passes over it.
    if (IsSubRip(path))
        return ParseSubRip(content, path);
    std::vector<SubtitleText> texts = ReadWithLibav(path);
    if (texts.empty())
        Refuse(path, "holds no subtitle text");
    Arrange(texts);
    return texts;
}

void Arrange(std::vector<SubtitleText>& texts) {
    std::stable_sort(texts.begin(), texts.end(), [](const SubtitleText& a, const SubtitleText& b) {
        return a.startMs < b.startMs;
    });
    std::vector<SubtitleText> arranged;
    for (SubtitleText& text : texts) {
        if (!arranged.empty() && arranged.back().startMs == text.startMs) {
            arranged.back().text += "\n" + text.text;
            arranged.back().endMs = std::max(arranged.back().endMs, text.endMs);
        } else {
            arranged.push_back(std::move(text));
        }
    }
    texts = std::move(arranged);
}

std::vector<Cluster> SubtitleClusters(const std::vector<SubtitleText>& texts, int64_t durationMs) {
    std::vector<Cluster> clusters;
    size_t next = 0;
    for (int64_t time = 0; time < durationMs; time += kClusterMs) {
        Cluster cluster;
        cluster.timeMs = time;
        for (; next < texts.size() && texts[next].startMs < std::min(time + kClusterMs, durationMs);
             ++next) {
            const SubtitleText& text = texts[next];
            cluster.blocks.push_back({text.startMs, text.endMs - text.startMs, true,
                                      std::vector<uint8_t>(text.text.begin(), text.text.end())});
        }
        clusters.push_back(std::move(cluster));
    }
    return clusters;
}

}  // namespace opal::package
