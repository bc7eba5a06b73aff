#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/Session.h"
#include "StreamingReader/Readers.h"

OPALError StreamingController::SetAudioTrack(size_t index) {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        const OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        if (!m_pReaders)
            return OPAL_ERROR_NOT_READY;
        if (index >= m_pSMILParser->GetAudioTrackCount())
            return OPAL_ERROR_OUT_OF_RANGE;
        return Post(MSG_SET_AUDIO_TRACK, index);
    });
}

OPALError StreamingController::SetSubtitleTrack(size_t index) {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        const OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        if (!m_pReaders)
            return OPAL_ERROR_NOT_READY;
        if (index != kNone && index >= m_pSMILParser->GetSubtitleTrackCount())
            return OPAL_ERROR_OUT_OF_RANGE;
        if (m_session->subtitles.IsOn() && index == m_session->subtitles.Current())
            return OPAL_OK;
        return Post(MSG_SET_SUBTITLE_TRACK, index);
    });
}

OPALError StreamingController::SetSubtitleTrackInternal(size_t index) {
    opal::RecursiveLock lock(m_mutex);
    return m_session->subtitles.Select(index);
}
