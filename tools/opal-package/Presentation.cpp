#include "opal-package/Presentation.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

using nlohmann::json;

constexpr std::pair<EntryKind, const char*> kKindNames[] = {{EntryKind::Level, "level"},
                                                            {EntryKind::Trick, "trick"},
                                                            {EntryKind::Audio, "audio"},
                                                            {EntryKind::Subtitle, "subtitle"}};

std::string KindName(EntryKind kind) {
    for (const auto& [value, name] : kKindNames) {
        if (value == kind)
            return name;
    }
    return "";
}

EntryKind KindOf(const std::string& text) {
    for (const auto& [value, name] : kKindNames) {
        if (text == name)
            return value;
    }
    throw PackageError(Failure::Refused, "unknown kind of file '" + text + "'");
}

std::string Escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

class ManifestWriter {
  public:
    explicit ManifestWriter(const std::string& baseUrl) : m_base(baseUrl) {
        while (!m_base.empty() && m_base.back() == '/')
            m_base.pop_back();
    }

    void Video(const Entry& entry) {
        m_out << "        <video src=\"" << Url(entry) << "\"";
        if (entry.kind == EntryKind::Trick)
            m_out << " systemProfile=\"TavoPlusTrickTrack\"";
        m_out << " systemBitrate=\"" << entry.bitrate << "\" width=\"" << entry.width
              << "\" height=\"" << entry.height << "\">\n";
        Param("header-request", entry.headerRequest);
        Param("vbv", entry.vbvBits);
        Param("mime", entry.mime);
        m_out << "        </video>\n";
    }

    void Track(const Entry& entry) {
        const char* name = entry.kind == EntryKind::Audio ? "audio" : "textstream";
        m_out << "        <" << name << " src=\"" << Url(entry) << "\" xml:lang=\""
              << Escaped(entry.language) << "\">\n";
        Param("header-request", entry.headerRequest);
        Param("reservedBandwidth", entry.reservedBandwidth);
        Param("assetId", entry.assetId);
        Param("mime", entry.mime);
        m_out << "        </" << name << ">\n";
    }

    std::ostringstream& Out() { return m_out; }

  private:
    std::string Url(const Entry& entry) const { return Escaped(m_base + "/" + entry.file); }

    template <typename T>
    void Param(const char* name, const T& value) {
        m_out << "          <param name=\"" << name << "\" value=\"" << value << "\"/>\n";
    }

    std::string m_base;
    std::ostringstream m_out;
};

void WriteTextFile(const std::string& path, const std::string& text) {
    // A reader sees the former text or the whole of this one.
    const std::string whole = path + ".new";
    std::ofstream out(whole, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    std::error_code error;
    if (out)
        std::filesystem::rename(whole, path, error);
    if (!out || error) {
        std::error_code ignored;
        std::filesystem::remove(whole, ignored);
        throw PackageError(Failure::InputOutput,
                           path + ": cannot be written; is the folder there and writable?");
    }
}

/// A file that is not the one described would fail in the middle of a film.
void TestFile(const std::string& path, const Entry& entry) {
    uint64_t least = entry.headerRequest;
    for (const uint64_t size : entry.clusterSizes)
        least += size;
    std::error_code error;
    const uint64_t size = std::filesystem::file_size(path, error);
    if (error || size < least) {
        throw PackageError(Failure::InputOutput,
                           path + ": " +
                               (error ? error.message()
                                      : "holds " + std::to_string(size) + " bytes of at least " +
                                            std::to_string(least)) +
                               "; make the presentation again");
    }
}

}  // namespace

void Describe(Entry& entry, const FileLayout& layout) {
    entry.headerRequest = layout.headerSize;
    entry.clusterTimesMs.clear();
    entry.clusterSizes.clear();
    for (const ClusterLayout& cluster : layout.clusters) {
        entry.clusterTimesMs.push_back(cluster.timeMs);
        entry.clusterSizes.push_back(cluster.size);
    }
}

std::string ManifestText(const Presentation& presentation, const std::string& baseUrl) {
    ManifestWriter writer(baseUrl);
    const auto group = [&](const char* element, EntryKind kind, auto write) {
        const auto matches = [kind](const Entry& entry) { return entry.kind == kind; };
        if (std::none_of(presentation.entries.begin(), presentation.entries.end(), matches))
            return;
        writer.Out() << "      <" << element << ">\n";
        for (const Entry& entry : presentation.entries) {
            if (matches(entry))
                write(entry);
        }
        writer.Out() << "      </" << element << ">\n";
    };
    const auto video = [&](const Entry& entry) { writer.Video(entry); };
    const auto track = [&](const Entry& entry) { writer.Track(entry); };
    writer.Out() << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<smil xmlns=\"http://www.w3.org/ns/SMIL\" version=\"3.0\">\n"
                    "  <body>\n    <par>\n";
    group("switch", EntryKind::Level, video);
    group("switch", EntryKind::Trick, video);
    group("excl", EntryKind::Audio, track);
    group("excl", EntryKind::Subtitle, track);
    writer.Out() << "    </par>\n  </body>\n</smil>\n";
    return writer.Out().str();
}

std::string SidecarText(const Presentation& presentation) {
    json out;
    out["duration_ms"] = presentation.durationMs;
    out["segment_duration_ms"] = kClusterMs;
    out["bitrates_kbps"] = json::array();
    out["segment_sizes_bits"] = json::array();
    size_t rows = 0;
    for (const Entry& entry : presentation.entries) {
        json file = {{"kind", KindName(entry.kind)},
                     {"file", entry.file},
                     {"header_request", entry.headerRequest},
                     {"mime", entry.mime},
                     {"cluster_times_ms", entry.clusterTimesMs},
                     {"cluster_sizes_bytes", entry.clusterSizes}};
        if (entry.kind == EntryKind::Level || entry.kind == EntryKind::Trick) {
            file["bitrate"] = entry.bitrate;
            file["width"] = entry.width;
            file["height"] = entry.height;
            file["vbv_bits"] = entry.vbvBits;
        } else {
            file["language"] = entry.language;
            file["reserved_bandwidth"] = entry.reservedBandwidth;
            file["asset_id"] = entry.assetId;
        }
        out["files"].push_back(file);
        if (entry.kind == EntryKind::Level) {
            out["bitrates_kbps"].push_back(entry.bitrate / 1000);
            rows = std::max(rows, entry.clusterSizes.size());
        }
    }
    for (size_t row = 0; row < rows; ++row) {
        json sizes = json::array();
        for (const Entry& entry : presentation.entries) {
            if (entry.kind == EntryKind::Level)
                sizes.push_back(row < entry.clusterSizes.size() ? entry.clusterSizes[row] * 8 : 0);
        }
        out["segment_sizes_bits"].push_back(sizes);
    }
    return out.dump(2) + "\n";
}

Presentation ParseSidecar(const std::string& text) {
    Presentation presentation;
    try {
        const json in = json::parse(text);
        presentation.durationMs = in.at("duration_ms").get<int64_t>();
        for (const json& file : in.at("files")) {
            Entry entry;
            entry.kind = KindOf(file.at("kind").get<std::string>());
            entry.file = file.at("file").get<std::string>();
            entry.headerRequest = file.at("header_request").get<uint64_t>();
            entry.mime = file.at("mime").get<std::string>();
            entry.clusterTimesMs = file.at("cluster_times_ms").get<std::vector<int64_t>>();
            entry.clusterSizes = file.at("cluster_sizes_bytes").get<std::vector<uint64_t>>();
            entry.bitrate = file.value("bitrate", 0);
            entry.width = file.value("width", 0);
            entry.height = file.value("height", 0);
            entry.vbvBits = file.value("vbv_bits", 0);
            entry.language = file.value("language", "");
            entry.reservedBandwidth = file.value("reserved_bandwidth", 0);
            entry.assetId = file.value("asset_id", int64_t{0});
            presentation.entries.push_back(std::move(entry));
        }
    } catch (const json::exception& error) {
        throw PackageError(Failure::Refused, error.what());
    }
    return presentation;
}

void WritePresentation(const std::string& folder, const Presentation& presentation,
                       const std::string& baseUrl) {
    WriteTextFile(folder + "/" + kSidecarName, SidecarText(presentation));
    WriteTextFile(folder + "/" + kManifestName, ManifestText(presentation, baseUrl));
}

void CheckBaseUrl(const std::string& baseUrl) {
    const bool known = baseUrl.rfind("http://", 0) == 0 || baseUrl.rfind("file://", 0) == 0;
    const bool clean = std::all_of(baseUrl.begin(), baseUrl.end(), [](unsigned char c) {
        return c > 0x20 && c < 0x7F && c != '"';
    });
    if (!known || !clean || baseUrl.size() <= std::strlen("http://"))
        throw PackageError(Failure::Usage, "--base-url '" + baseUrl +
                                               "' is no URL of a folder; write "
                                               "http://HOST:PORT/PATH or file:///PATH");
}

void RewriteManifest(const std::string& folder, const std::string& baseUrl) {
    const std::string path = folder + "/" + kSidecarName;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        throw PackageError(Failure::InputOutput,
                           path + ": cannot be read; make the presentation first");
    }
    try {
        const Presentation presentation = ParseSidecar(text.str());
        for (const Entry& entry : presentation.entries)
            TestFile(folder + "/" + entry.file, entry);
        WriteTextFile(folder + "/" + kManifestName, ManifestText(presentation, baseUrl));
    } catch (const PackageError& error) {
        if (error.GetFailure() != Failure::Refused)
            throw;
        throw PackageError(Failure::Refused, path + ": is no description of a presentation (" +
                                                 error.what() + "); make the presentation again");
    }
}

}  // namespace opal::package
