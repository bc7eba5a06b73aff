#pragma once

#include <boost/scoped_ptr.hpp>
#include <cstdint>

#include "Common/Mutex.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/OPALWriterModel.h"

class BufferingSession;
class IStreamingReaderNotify;
class IStreamSwitchingController;
class ISMILParser;
class Readers;

namespace opal {

/// The objects and flags of a session that the parts of the controller work on. The controller owns
/// all of them; the parts see them through this, and do not know the controller.
///
/// Threading: under the session's lock, unless a part says otherwise.
struct SessionObjects {
    boost::scoped_ptr<ISMILParser>& parser;
    boost::scoped_ptr<IStreamSwitchingController>& switching;
    boost::scoped_ptr<Readers>& readers;
    boost::scoped_ptr<IStreamingReaderNotify>& readerNotify;
    BufferingSession& buffering;
    const bool& writersPaused;
    const OPALPlayRate& playRate;
    const OPALWriterModel& writerModel;
    /// Shared by the accessors that do not take the session's lock.
    SharedMutex& objectsMutex;

    /// Puts an object in place under the accessors' eyes.
    template <typename T>
    void Publish(boost::scoped_ptr<T>& slot, T* object) const {
        ExclusiveLock lock(objectsMutex);
        slot.reset(object);
    }
    /// What the switching controller wants, as an index into the levels.
    size_t LevelFromSwitching() const;
    /// Tells the switching controller that a stream begins anew.
    void RestartSwitching(OPALStreamType type) const;
    /// Turns what a stream needs buffered into the bytes of its next clusters.
    void ArmBuffering(OPALStreamType type) const;
    /// The switching controller's bandwidth, or while it knows none the bit-rate of the last level.
    int ReportedBandwidth() const;
    /// The error of the video stream, else that of audio.
    OPALError ReaderError() const;
    bool RunsAtNormalRate() const { return !writersPaused && playRate == OPAL_PLAYRATE_ONEX; }
};

}  // namespace opal
