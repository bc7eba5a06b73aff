#include "Common/StreamingTuning.h"

StreamingTuning& StreamingTuning::Mutable() {
    static StreamingTuning tuning;
    return tuning;
}

const StreamingTuning& StreamingTuning::Instance() {
    return Mutable();
}

void StreamingTuning::OverrideTimeouts(int64_t connectionSeconds, int64_t transferSeconds) {
    Mutable().m_connectionTimeout = connectionSeconds;
    Mutable().m_transferTimeout = transferSeconds;
}
