#include "StreamingController/ArrangedLogSender.h"

#include <atomic>
#include <boost/make_shared.hpp>
#include <mutex>

#include "Common/ObjectFactory.h"

namespace {

std::atomic<ILogEventSender* (*)()> g_maker{nullptr};

class ArrangedLogEventSenderObject : public LogEventSenderObject {
  public:
    bool Accepts(int kind) const override {
        return kind == ObjectFactory::kArrangedSender && g_maker.load() != nullptr;
    }
    ILogEventSender* Create(const LogEventSenderConfig*, void*) override {
        const auto maker = g_maker.load();
        return maker ? maker() : nullptr;
    }
};

}  // namespace

extern "C" void KMTArrangeLogSender(ILogEventSender* (*maker)()) {
    static std::once_flag once;
    ObjectFactory& factory = ObjectFactory::Instance();
    std::call_once(
        once, [&factory] { factory.Register(boost::make_shared<ArrangedLogEventSenderObject>()); });
    g_maker = maker;
    factory.SelectLogEventSender(
        maker ? ObjectFactory::kArrangedSender : ObjectFactory::kUploadSender, nullptr, nullptr);
}
