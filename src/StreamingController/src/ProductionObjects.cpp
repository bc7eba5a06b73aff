#include "StreamingController/src/ProductionObjects.h"

#include <boost/make_shared.hpp>
#include <mutex>
#include <new>

#include "Common/ObjectFactory.h"
#include "Common/logging/LogEventSender.h"
#include "PlatformAdapter/Common/PlatformAudio.h"
#include "PlatformAdapter/Common/PlatformSubtitle.h"
#include "PlatformAdapter/Common/PlatformVideo.h"
#include "StreamingController/StreamingController.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/HTTPFile/HTTPFile.h"
#include "StreamingReader/Readers.h"
#ifdef OPAL_TICKET_START
#include "ContentSession/ContentSession.h"
#endif

namespace {

class ProductionHTTPFileObject : public HTTPFileObject {
  public:
    bool Accepts(int kind) const override { return kind == 0; }
    IHTTPFile* Create(bool threaded) override { return new (std::nothrow) HTTPFile(threaded); }
};

class NullLogEventSenderObject : public LogEventSenderObject {
  public:
    bool Accepts(int kind) const override { return kind == ObjectFactory::kNullSender; }
    ILogEventSender* Create(const LogEventSenderConfig*, void*) override {
        return new (std::nothrow) NullLogEventSender;
    }
};

#ifdef OPAL_TICKET_START
class ProductionLogEventSenderObject : public LogEventSenderObject {
  public:
    bool Accepts(int kind) const override { return kind == ObjectFactory::kUploadSender; }
    ILogEventSender* Create(const LogEventSenderConfig* config, void*) override {
        return NewUploadLogEventSender(config);
    }
};

class ProductionProtectedContentObject : public ProtectedContentObject {
  public:
    bool Accepts(int kind) const override { return kind == 0; }
    IProtectedContent* Create() override { return NewContentSession(); }
};
#endif

}  // namespace

void opal::RegisterProductionObjects() {
    static std::once_flag once;
    std::call_once(once, [] {
        ObjectFactory& factory = ObjectFactory::Instance();
        factory.Register(boost::make_shared<ProductionHTTPFileObject>());
#ifdef OPAL_TICKET_START
        factory.Register(boost::make_shared<ProductionLogEventSenderObject>());
        factory.Register(boost::make_shared<ProductionProtectedContentObject>());
#endif
        factory.Register(boost::make_shared<NullLogEventSenderObject>());
    });
}

IClusterBuffer* StreamingController::NewClusterBuffer(size_t capacity) {
    return ::NewClusterBuffer(capacity);
}

Readers* StreamingController::NewReaders() {
    return new Readers(&m_stop);
}

IStreamSwitchingController* StreamingController::NewSwitchingController() {
    return NewStreamSwitchingController();
}

IPlatform* StreamingController::NewVideoSink(HHABARCH hArch, HHABTIMER hTimer) {
    return new PlatformVideo(hArch, hTimer);
}

IPlatform* StreamingController::NewAudioSink(HHABARCH hArch, HHABTIMER hTimer) {
    return new PlatformAudio(hArch, hTimer);
}

IPlatform* StreamingController::NewSubtitleSink(HHABARCH hArch, HHABTIMER hTimer) {
    return new PlatformSubtitle(hArch, hTimer);
}
