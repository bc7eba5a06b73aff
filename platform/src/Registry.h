#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "Common/Mutex.h"
#include "TvSet.h"

namespace tvset {

class TvCore;

/// The one player of the process, its options before and its counters after it, and the listener.
///
/// Threading: any thread. Ownership: holds the core from `Create` to `Destroy`; who is inside an
/// operation keeps it alive until that returns.
class Registry {
  public:
    static Registry& Get();

    bool Configure(const Options& options);
    /// Where the next player's pictures go. Takes no lock: a core asks with its own held.
    VideoOutput Output() const { return m_output; }
    /// Nothing while a player exists: the second stays without a core, and all it does fails.
    void Create(void* player);
    void Destroy(const void* player);
    std::shared_ptr<TvCore> CoreOf(const void* player) const;
    std::shared_ptr<TvCore> Current() const;
    Statistics GetStatistics() const;

    void SetListener(std::function<void(uint32_t)> listener);
    void TellListener(uint32_t ptsMs);

  private:
    mutable opal::Mutex m_mutex;
    Options m_options OPAL_GUARDED_BY(m_mutex);
    std::atomic<VideoOutput> m_output{VideoOutput::Headless};  ///< of m_options
    Statistics m_last OPAL_GUARDED_BY(m_mutex);
    std::shared_ptr<TvCore> m_core OPAL_GUARDED_BY(m_mutex);
    const void* m_player OPAL_GUARDED_BY(m_mutex) = nullptr;

    opal::Mutex m_listenerMutex;  ///< held while the listener runs
    std::function<void(uint32_t)> m_listener OPAL_GUARDED_BY(m_listenerMutex);
};

}  // namespace tvset
