#include "StreamingController/src/ProductionObjects.h"

#include <boost/make_shared.hpp>
#include <mutex>
#include <new>

#include "Common/ObjectFactory.h"
#include "Common/logging/LogEventSender.h"
#include "StreamingReader/HTTPFile/HTTPFile.h"

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

}  // namespace

void opal::RegisterProductionObjects() {
    static std::once_flag once;
    std::call_once(once, [] {
        ObjectFactory& factory = ObjectFactory::Instance();
        factory.Register(boost::make_shared<ProductionHTTPFileObject>());
        factory.Register(boost::make_shared<NullLogEventSenderObject>());
    });
}
