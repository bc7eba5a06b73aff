#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>

#include "Common/OPALError.h"
#include "Common/StopSignal.h"
#include "SMILParser/IAudioTrack.h"
#include "SMILParser/ISubtitleTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "SMILParser/IVideoTrickTrack.h"

/// Fetches a SMIL manifest, or takes its text, and answers what streams the presentation has.
/// Video levels are sorted by ascending bitrate: the index into them is the level number that the
/// whole system uses, 0 the lowest. The other lists keep the document's order.
///
/// Threading: parses once, on the thread that initialises the controller, blocking in the
/// transport; after that any thread reads it without a lock. Errors: a getter whose index is not
/// below its count gives -3 and an empty pointer.
class ISMILParser : boost::noncopyable {
  public:
    virtual ~ISMILParser() = default;
    /// Fetches and parses; the transport's error, or ParseSMILData's.
    virtual OPALError ParseSMILFile(const std::string& location) = 0;
    /// `data` is terminated by a zero byte; `size` counts it or not. -2 for null or size 0, -1 for
    /// what is not a manifest.
    virtual OPALError ParseSMILData(const char* data, size_t size) = 0;
    virtual size_t GetVideoLevelCount() const = 0;
    virtual OPALError GetVideoLevel(size_t index, boost::shared_ptr<IVideoLevel>& level) const = 0;
    virtual size_t GetVideoTrickTrackCount() const = 0;
    virtual OPALError GetVideoTrickTrack(size_t index,
                                         boost::shared_ptr<IVideoTrickTrack>& track) const = 0;
    virtual size_t GetAudioTrackCount() const = 0;
    virtual OPALError GetAudioTrack(size_t index, boost::shared_ptr<IAudioTrack>& track) const = 0;
    virtual size_t GetSubtitleTrackCount() const = 0;
    virtual OPALError GetSubtitleTrack(size_t index,
                                       boost::shared_ptr<ISubtitleTrack>& track) const = 0;
    /// Raised, the signal ends a fetch with -28. Not owned; null is never raised.
    virtual void SetStopSignal(const opal::StopSignal* /*signal*/) {}
};

/// A new parser, owned by the caller; null when there is no memory.
ISMILParser* NewSMILParser();
