#include "StreamingController/src/SessionObjects.h"

#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "StreamingController/BufferingSession.h"
#include "StreamingReader/Readers.h"

namespace opal {

// Trick tracks lie behind the levels and are no levels.
size_t SessionObjects::LevelFromSwitching() const {
    return playback::LevelOf(switching->GetCurrentLevel(), parser->GetVideoLevelCount());
}

void SessionObjects::RestartSwitching(OPALStreamType type) const {
    switching->GetNotify()->Notify(type, StreamSwitchingNotify::EVENT_RESTART,
                                   StreamSwitchingNotify::Message());
}

void SessionObjects::ArmBuffering(OPALStreamType type) const {
    if (type == OPAL_STREAM_AUDIO && parser->GetAudioTrackCount() == 0)
        return;
    int ms = 0;
    size_t bytes = 0;
    switching->GetBufferRequirement(ms, type);
    const OPALError code = type == OPAL_STREAM_AUDIO ? readers->GetAudioBytesAhead(ms, bytes)
                                                     : readers->GetVideoBytesAhead(ms, bytes);
    if (code == OPAL_OK)
        buffering.SetTarget(bytes, type);
}

int SessionObjects::ReportedBandwidth() const {
    const int bandwidth = switching->GetBandwidth();
    const size_t count = parser->GetVideoLevelCount();
    boost::shared_ptr<IVideoLevel> last;
    if (bandwidth == 0 && count != 0 && parser->GetVideoLevel(count - 1, last) == OPAL_OK)
        return last->GetBitrate();
    return bandwidth;
}

OPALError SessionObjects::ReaderError() const {
    OPALError code = OPAL_OK;
    if (readers->GetVideoStreamCount() != 0)
        code = readers->GetVideoError();
    if (code == OPAL_OK && readers->GetAudioStreamCount() != 0)
        code = readers->GetAudioError();
    return code;
}

}  // namespace opal
