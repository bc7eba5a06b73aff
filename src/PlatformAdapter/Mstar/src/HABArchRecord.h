#pragma once

#include <atomic>
#include <cstdint>

#include "Common/StopSignal.h"

/// The record behind HHABARCH; its size and the widths of its fields are the platform runtime's.
/// Writer threads, the controller's threads and the player's event thread touch it without a lock,
/// so the fields are atomics of those widths.
struct HABArch {
    std::atomic<uint8_t> itemReady{0};        ///< the player has accepted the media item
    std::atomic<uint8_t> audioConfigured{0};  ///< the audio side is ready; video may start
    std::atomic<uint32_t> lastTimestamp{0};   ///< media time of the last video block pushed, ms
    std::atomic<uint32_t> lastPts{0};         ///< decoder time of the same, ms
    std::atomic<uint8_t> playing{0};          ///< the decoder runs
    std::atomic<uint8_t> closing{0};          ///< the session ends: waits inside the sinks end
    std::atomic<uint8_t> held{0};             ///< the player is not to run
    alignas(8) std::atomic<const opal::StopSignal*> stop{nullptr};  ///< the session's
};
static_assert(sizeof(HABArch) == 24, "the record's size is fixed");
static_assert(std::atomic<uint8_t>::is_always_lock_free &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "the event thread must not block");
