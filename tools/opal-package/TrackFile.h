#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// One media file being written: gathers blocks into clusters. A cluster begins with the first key
/// frame at or behind each multiple of the cluster length, so files that are fed the same key frame
/// times are cut alike.
///
/// Threading: one thread.
/// Errors: PackageError (InputOutput) that names the file.
class TrackFile {
  public:
    /// `golden`: writes a golden file beside it.
    TrackFile(const std::string& path, int64_t clusterMs, bool golden = false);

    /// Must come before the first block.
    void Describe(const TrackDescription& track);
    bool IsDescribed() const { return m_writer != nullptr; }

    void Add(Block block);
    /// A whole cluster; not to be mixed with Add.
    void AddCluster(const Cluster& cluster);

    /// Completes the file.
    FileLayout Finish(int64_t durationMs);

  private:
    template <typename Work>
    auto Guarded(Work work);

    std::string m_path;
    int64_t m_clusterMs;
    std::ofstream m_out;
    std::unique_ptr<std::ofstream> m_golden;
    std::unique_ptr<MatroskaWriter> m_writer;
    Cluster m_cluster;
    int64_t m_nextClusterMs = 0;
};

}  // namespace opal::package
