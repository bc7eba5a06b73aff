#include "opal-package/TrackFile.h"

#include <utility>

#include "opal-package/Error.h"
#include "opal-package/GoldenFile.h"

namespace opal::package {

/// The writer knows of no file name; its exceptions get one here.
template <typename Work>
auto TrackFile::Guarded(Work work) {
    try {
        return work();
    } catch (const std::invalid_argument& error) {
        throw PackageError(Failure::Refused, m_path + ": " + error.what());
    } catch (const std::runtime_error& error) {
        throw PackageError(Failure::InputOutput,
                           m_path + ": " + error.what() + "; is the disk full?");
    }
}

TrackFile::TrackFile(const std::string& path, int64_t clusterMs, bool golden)
    : m_path(path), m_clusterMs(clusterMs), m_out(path, std::ios::binary | std::ios::trunc) {
    if (!m_out) {
        throw PackageError(Failure::InputOutput,
                           path + ": cannot be created; is the folder writable?");
    }
    if (golden) {
        m_golden = std::make_unique<std::ofstream>(path + kGoldenEnding,
                                                   std::ios::binary | std::ios::trunc);
    }
}

void TrackFile::Describe(const TrackDescription& track) {
    Guarded([&] { m_writer = std::make_unique<MatroskaWriter>(m_out, track); });
}

void TrackFile::Add(Block block) {
    if (block.key && block.timeMs >= m_nextClusterMs) {
        if (!m_cluster.blocks.empty())
            AddCluster(m_cluster);
        m_cluster = Cluster{block.timeMs, {}};
        m_nextClusterMs = (block.timeMs / m_clusterMs + 1) * m_clusterMs;
    }
    m_cluster.blocks.push_back(std::move(block));
}

void TrackFile::AddCluster(const Cluster& cluster) {
    Guarded([&] { m_writer->WriteCluster(cluster); });
    for (const Block& block : cluster.blocks) {
        if (m_golden)
            WriteGoldenRecord(*m_golden, block);
    }
}

FileLayout TrackFile::Finish(int64_t durationMs) {
    if (!m_cluster.blocks.empty())
        AddCluster(m_cluster);
    return Guarded([&] {
        FileLayout layout = m_writer->Finish(durationMs);
        m_out.close();
        if (m_golden)
            m_golden->close();
        if (!m_out || (m_golden && !*m_golden))
            throw std::runtime_error("the file could not be completed");
        return layout;
    });
}

}  // namespace opal::package
