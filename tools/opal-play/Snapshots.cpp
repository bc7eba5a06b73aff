#include "opal-play/Snapshots.h"

#include <cstdio>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>

#include "TvSet.h"

namespace opal::play {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
// A picture later than this is not the one that was asked for.
constexpr int64_t kToleranceMs = 1000;

}  // namespace

Snapshots::Snapshots(const Wake& wake, const std::string& folder, std::vector<int64_t> timesMs)
    : m_wake(wake),
      m_folder(folder),
      m_due(std::move(timesMs)),
      m_nextMs(m_due.empty() ? kNever : m_due.front()) {
    std::error_code error;
    if (!folder.empty() && !std::filesystem::create_directories(folder, error) && error)
        throw std::runtime_error("folder " + folder + " cannot be made: " + error.message());
    tvset::SetPictureListener([this](uint32_t ptsMs) { OnPicture(ptsMs); });
}

Snapshots::~Snapshots() {
    tvset::SetPictureListener({});
}

void Snapshots::OnPicture(uint32_t ptsMs) {
    if (m_lastMs >= 0 && ptsMs - m_lastMs > m_longestGapMs) {
        m_longestGapMs = ptsMs - m_lastMs;
        m_gapEndMs = ptsMs;
    }
    if (m_lastMs < 0)
        m_wake.Signal();  // the first one is told at once
    m_lastMs = ptsMs;
    if (!m_live)
        return;
    m_shownMs = ptsMs;
    if (ptsMs >= m_nextMs)
        m_wake.Signal();
}

bool Snapshots::TakeNow(int64_t positionMs, std::string& error) {
    char name[64];
    std::snprintf(name, sizeof name, "at-%gs.png", static_cast<double>(positionMs) / 1000);
    const std::string file = (std::filesystem::path(m_folder) / name).string();
    if (!tvset::WriteSnapshot(file, &error)) {
        error = "snapshot " + file + ": " + error;
        return false;
    }
    m_taken.push_back({positionMs, file});
    return true;
}

bool Snapshots::TakeDue(std::string& error) {
    bool good = true;
    const int64_t shown = m_shownMs.exchange(-1);
    while (!m_due.empty() && shown >= m_due.front()) {
        const int64_t wanted = m_due.front();
        m_due.erase(m_due.begin());
        if (shown > wanted + kToleranceMs)
            m_missed.push_back(wanted);
        else
            good = TakeNow(wanted, error) && good;
    }
    m_nextMs = m_due.empty() ? kNever : m_due.front();
    return good;
}

std::vector<int64_t> Snapshots::Missing() const {
    std::vector<int64_t> missing = m_missed;
    missing.insert(missing.end(), m_due.begin(), m_due.end());
    return missing;
}

}  // namespace opal::play
