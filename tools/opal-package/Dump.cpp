#include "opal-package/Dump.h"

#include <algorithm>
#include <array>
#include <boost/scoped_ptr.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "StreamingDemux/EBML/BlockNode.h"
#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/EBMLTree.h"
#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingDemux/EBML/IClusterParser.h"
#include "opal-package/Error.h"
#include "opal-package/GoldenFile.h"

namespace opal::package {
namespace {

/// What is read into memory at once; a header or cluster that claims more is not read.
constexpr uint64_t kLargestPart = 64 << 20;
/// Of an element: identifier and size, eight bytes each at the most.
constexpr size_t kLongestHeader = 16;
/// Clusters of a year of film; only garbage has more elements.
constexpr int kMostElements = 1 << 24;
/// Deeper nesting than any header has.
constexpr int kDeepest = 8;
constexpr size_t kLongestText = 60;

enum class Kind { Container, UInt, Float, Text, Binary };

struct Name {
    uint64_t id;
    const char* text;
    Kind kind;
};

constexpr Name kNames[] = {
    {ebml::kHeader, "EBML header", Kind::Container},
    {0x4286, "EBMLVersion", Kind::UInt},
    {0x42F7, "EBMLReadVersion", Kind::UInt},
    {0x42F2, "EBMLMaxIDLength", Kind::UInt},
    {0x42F3, "EBMLMaxSizeLength", Kind::UInt},
    {0x4282, "DocType", Kind::Text},
    {0x4287, "DocTypeVersion", Kind::UInt},
    {0x4285, "DocTypeReadVersion", Kind::UInt},
    {ebml::kSegment, "Segment", Kind::Container},
    {ebml::kSeekHead, "SeekHead", Kind::Container},
    {ebml::kSeek, "Seek", Kind::Container},
    {ebml::kSeekID, "SeekID", Kind::Binary},
    {ebml::kSeekPosition, "SeekPosition", Kind::UInt},
    {ebml::kInfo, "Info", Kind::Container},
    {ebml::kTimecodeScale, "TimecodeScale", Kind::UInt},
    {ebml::kDuration, "Duration", Kind::Float},
    {0x4D80, "MuxingApp", Kind::Text},
    {0x5741, "WritingApp", Kind::Text},
    {ebml::kTracks, "Tracks", Kind::Container},
    {ebml::kTrackEntry, "TrackEntry", Kind::Container},
    {0xD7, "TrackNumber", Kind::UInt},
    {0x73C5, "TrackUID", Kind::UInt},
    {ebml::kTrackType, "TrackType", Kind::UInt},
    {0x9C, "FlagLacing", Kind::UInt},
    {0x22B59C, "Language", Kind::Text},
    {ebml::kDefaultDuration, "DefaultDuration", Kind::UInt},
    {ebml::kCodecID, "CodecID", Kind::Text},
    {ebml::kCodecPrivate, "CodecPrivate", Kind::Binary},
    {0xE0, "Video", Kind::Container},
    {0xB0, "PixelWidth", Kind::UInt},
    {0xBA, "PixelHeight", Kind::UInt},
    {0x54B0, "DisplayWidth", Kind::UInt},
    {0x54BA, "DisplayHeight", Kind::UInt},
    {0x55B0, "Colour", Kind::Container},
    {0x55B1, "MatrixCoefficients", Kind::UInt},
    {0x55B9, "Range", Kind::UInt},
    {0x55BA, "TransferCharacteristics", Kind::UInt},
    {0x55BB, "Primaries", Kind::UInt},
    {ebml::kAudio, "Audio", Kind::Container},
    {ebml::kSamplingFrequency, "SamplingFrequency", Kind::Float},
    {ebml::kOutputSamplingFrequency, "OutputSamplingFrequency", Kind::Float},
    {ebml::kChannels, "Channels", Kind::UInt},
    {ebml::kAttachments, "Attachments", Kind::Container},
    {ebml::kAttachedFile, "AttachedFile", Kind::Container},
    {ebml::kFileName, "FileName", Kind::Text},
    {ebml::kFileMimeType, "FileMimeType", Kind::Text},
    {0x46AE, "FileUID", Kind::UInt},
    {ebml::kFileData, "FileData", Kind::Binary},
    {ebml::kCluster, "Cluster", Kind::Binary},
    {ebml::kCues, "Cues", Kind::Binary},
    {0xEC, "Void", Kind::Binary},
};

const Name* FindName(uint64_t id) {
    const auto found = std::find_if(std::begin(kNames), std::end(kNames),
                                    [id](const Name& name) { return name.id == id; });
    return found == std::end(kNames) ? nullptr : found;
}

std::string Hex(const uint8_t* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", data[i]);
        text += digits;
    }
    return text;
}

/// What the terminal can show of bytes that should be text.
std::string Printable(const uint8_t* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < std::min(size, kLongestText); ++i)
        text += data[i] >= 0x20 && data[i] != 0x7F ? static_cast<char>(data[i]) : '?';
    return text + (size > kLongestText ? "..." : "");
}

class Dumper {
  public:
    Dumper(const std::string& path, std::ostream& out)
        : m_path(path), m_in(path, std::ios::binary), m_out(out) {
        m_in.seekg(0, std::ios::end);
        const auto end = m_in.tellg();
        if (!m_in || end < 0)
            throw PackageError(Failure::InputOutput, path + ": cannot be read");
        m_size = static_cast<uint64_t>(end);
        for (const Name& name : kNames) {
            if (name.kind == Kind::Container)
                m_schema.AddContainer(name.id);
        }
    }

    int Run() {
        m_out << m_path << ": " << m_size << " bytes\n";
        if (FindParts()) {
            PrintHeader();
            PrintIndexAndBlocks();
        }
        return m_damages == 0 ? 0 : static_cast<int>(Failure::Damaged);
    }

  private:
    void Damage(const std::string& text) {
        ++m_damages;
        m_out << "damaged: " << text << "\n";
    }

    std::vector<uint8_t> Read(uint64_t offset, uint64_t size) {
        if (offset >= m_size) {
            return {};
        }
        std::vector<uint8_t> bytes(
            static_cast<size_t>(std::min({size, m_size - offset, kLargestPart})));
        m_in.clear();
        m_in.seekg(static_cast<std::streamoff>(offset));
        m_in.read(reinterpret_cast<char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        bytes.resize(static_cast<size_t>(m_in.gcount()));
        return bytes;
    }

    /// Reads an element's header; false where there is none. `end` is the byte behind the element,
    /// which may lie beyond the file.
    bool ReadElement(uint64_t offset, ElementHeader& header, uint64_t& headerSize, uint64_t& end) {
        std::array<uint8_t, kLongestHeader> head{};
        const auto bytes = Read(offset, head.size());
        std::copy(bytes.begin(), bytes.end(), head.begin());
        header = ReadHeader(head.data(), static_cast<int64_t>(bytes.size()));
        if (header.data == nullptr)
            return false;
        headerSize = static_cast<uint64_t>(header.data - head.data());
        header.data = nullptr;  // pointed into the bytes just read
        end = offset + headerSize + header.size;
        return true;
    }

    /// Where the Segment's payload begins, how long the header is, and where the index lies.
    bool FindParts() {
        ElementHeader header;
        uint64_t headerSize = 0;
        uint64_t end = 0;
        uint64_t at = 0;
        if (!ReadElement(0, header, headerSize, end) || header.id != ebml::kHeader ||
            end >= m_size) {
            Damage("no EBML header at the start; is it a media file?");
            return false;
        }
        if (!ReadElement(end, header, headerSize, at) || header.id != ebml::kSegment) {
            Damage("no Segment behind the EBML header, at " + std::to_string(end));
            return false;
        }
        m_segmentData = end + headerSize;
        if (at > m_size) {
            Damage("the Segment states " + std::to_string(header.size) + " bytes, " +
                   std::to_string(m_size - m_segmentData) + " are there");
        }
        int elements = 0;
        for (at = m_segmentData; at < m_size; at = end) {
            if (++elements > kMostElements) {
                Damage("more than " + std::to_string(kMostElements) + " elements in the Segment");
                break;
            }
            if (!ReadElement(at, header, headerSize, end)) {
                Damage("no element at " + std::to_string(at));
                break;
            }
            if (header.id == ebml::kCluster && m_headerSize == 0) {
                m_headerSize = at;
            } else if (header.id == ebml::kCues && m_cues == 0) {
                m_cues = at;
                m_cuesSize = end - at;
            }
        }
        m_headerSize =
            m_headerSize != 0 ? m_headerSize : std::min(m_cues != 0 ? m_cues : at, m_size);
        return true;
    }

    void PrintHeader() {
        m_out << "header: " << m_headerSize << " bytes up to the first cluster\n";
        const auto bytes = Read(0, m_headerSize);
        const auto size = static_cast<int64_t>(bytes.size());
        EBMLTree first(&m_schema, bytes.data(), size);
        m_out << "  EBML header\n";
        for (EBMLElement* child = first.GetFirstChild(); child != nullptr;
             child = first.GetNextChild()) {
            PrintElement(*child, 2);
        }
        const auto ebmlSize = static_cast<int64_t>(
            std::min<uint64_t>(first.GetTotalSize(), static_cast<uint64_t>(size)));
        EBMLTree segment(&m_schema, bytes.data() + ebmlSize, size - ebmlSize);
        m_out << "  Segment, payload at " << m_segmentData << "\n";
        for (EBMLElement* child = segment.GetFirstChild(); child != nullptr;
             child = segment.GetNextChild()) {
            PrintElement(*child, 2);
        }
    }

    void PrintElement(EBMLElement& element, int depth) {
        const Name* name = FindName(element.GetID());
        m_out << std::string(static_cast<size_t>(depth) * 2, ' ');
        if (name == nullptr) {
            char id[24];
            std::snprintf(id, sizeof id, "0x%llX",
                          static_cast<unsigned long long>(element.GetID()));
            m_out << "unknown " << id << ", " << element.GetSize() << " bytes\n";
            return;
        }
        m_out << name->text;
        if (name->kind == Kind::Container) {
            m_out << "\n";
            for (EBMLElement* child = depth < kDeepest ? element.GetFirstChild() : nullptr;
                 child != nullptr; child = element.GetNextChild()) {
                PrintElement(*child, depth + 1);
            }
        } else {
            m_out << ": ";
            PrintValue(*name, element);
        }
    }

    void PrintValue(const Name& name, const EBMLElement& element) {
        const uint8_t* data = element.GetCompleteData();
        const auto size = static_cast<size_t>(element.GetSize());
        if (data == nullptr && element.GetSize() > 0) {
            m_out << "\n";
            Damage(std::string(name.text) + " states " + std::to_string(element.GetSize()) +
                   " bytes, which the header does not hold");
            return;
        }
        switch (name.kind) {
            case Kind::UInt:
                m_out << ReadUInt(data, size);
                break;
            case Kind::Float:
                m_out << ReadFloat(data, size) << (size == 4 ? "" : " (not a 4-byte float)");
                break;
            case Kind::Text:
                m_out << Printable(data, size);
                break;
            default:
                m_out << size << " bytes";
                if (size <= kLongestText)
                    m_out << " " << Hex(data, size);
        }
        m_out << "\n";
    }

    void PrintIndexAndBlocks() {
        if (m_cues == 0) {
            Damage("no Cues in the file; a player cannot find the clusters");
            return;
        }
        const auto bytes = Read(m_cues, m_cuesSize);
        boost::scoped_ptr<IClusterIndex> index(
            NewClusterIndex(static_cast<int64_t>(m_cues), static_cast<int64_t>(m_segmentData)));
        if (index->Parse(bytes.data(), static_cast<int64_t>(bytes.size())) != OPAL_OK)
            Damage("the Cues at " + std::to_string(m_cues) + " cannot be read");
        m_out << "index: " << index->GetCount() << " clusters, Cues at " << m_cues << ", "
              << m_cuesSize << " bytes\n";
        for (size_t i = 0; i < index->GetCount(); ++i)
            PrintCluster(*index, i);
    }

    void PrintCluster(const IClusterIndex& index, size_t i) {
        const int64_t offset = index.GetOffset(i);
        const int64_t size = index.GetSize(i);
        m_out << "cluster " << i << ": " << index.GetTime(i) << " ms, at " << offset << ", " << size
              << " bytes";
        if (index.GetFrameCount(i) > 0) {
            m_out << ", " << index.GetFrameCount(i) << " key frames behind a header of "
                  << index.GetHeaderSize(i);
        }
        m_out << "\n";
        const auto where = static_cast<uint64_t>(offset);
        if (offset < 0 || size <= 0 || where >= m_size ||
            static_cast<uint64_t>(size) > std::min(m_size - where, kLargestPart)) {
            Damage("cluster " + std::to_string(i) + " does not lie in the file");
            return;
        }
        const auto bytes = Read(where, static_cast<uint64_t>(size));
        qutl::MemoryBuffer<unsigned char> buffer;
        buffer.Assign(bytes.data(), bytes.size(), 0, false);
        PrintFrames(index, i);
        boost::scoped_ptr<IClusterParser> parser(NewClusterParser());
        if (parser->SetCluster(buffer, static_cast<uint32_t>(i)) != OPAL_OK) {
            Damage("no cluster with a time code at " + std::to_string(offset));
            return;
        }
        PrintBlocks(*parser, i);
    }

    void PrintFrames(const IClusterIndex& index, size_t i) {
        for (size_t frame = 0; frame < index.GetFrameCount(i); ++frame) {
            int64_t offset = 0;
            uint32_t size = 0;
            if (index.GetFrame(i, frame, offset, size) == OPAL_OK)
                m_out << "  key frame " << frame << " at " << offset << ", " << size << " bytes\n";
        }
    }

    void PrintBlocks(IClusterParser& parser, size_t cluster) {
        BlockNode block;
        OPALError error = OPAL_OK;
        while ((error = parser.GetNextBlock(block, 0)) == OPAL_OK) {
            char line[96];
            const uint32_t crc = BlockCrc(block.data.GetData(), block.data.GetSize());
            std::snprintf(line, sizeof line, "  block %lld ms%s, %zu bytes, crc %08x",
                          static_cast<long long>(block.timecode),
                          (block.flags & BlockNode::kKeyFrame) != 0 ? " key" : "",
                          block.data.GetSize(), crc);
            m_out << line;
            if (block.duration != 0)
                m_out << ", lasts " << block.duration << " ms";
            m_out << "\n";
        }
        if (error != OPAL_ERROR_END_OF_DATA)
            Damage("a block of cluster " + std::to_string(cluster) + " cannot be read");
    }

    std::string m_path;
    std::ifstream m_in;
    std::ostream& m_out;
    EBMLSchema m_schema;
    uint64_t m_size = 0;
    uint64_t m_segmentData = 0;
    uint64_t m_headerSize = 0;
    uint64_t m_cues = 0;
    uint64_t m_cuesSize = 0;
    int m_damages = 0;
};

}  // namespace

int Dump(const std::string& path, std::ostream& out) {
    if (std::filesystem::is_directory(path))
        throw PackageError(Failure::InputOutput, path + ": is a folder");
    const std::string ending = kGoldenEnding;
    if (path.size() > ending.size() &&
        path.compare(path.size() - ending.size(), ending.size(), ending) == 0) {
        return DumpGolden(path, out);
    }
    return Dumper(path, out).Run();
}

}  // namespace opal::package
