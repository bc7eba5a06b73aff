#include "opal-play/LogFile.h"

#include <fstream>
#include <stdexcept>

#include "StreamingController/ArrangedLogSender.h"

namespace opal::play {
namespace {

constexpr int64_t kIntervalMs = 1000;
constexpr size_t kMaxDocument = 0x20000;

std::ofstream& File() {
    static std::ofstream file;
    return file;
}

class FileLogSender : public ILogEventSender {
  public:
    OPALError Initialize() override { return OPAL_OK; }
    void SetLocale(const std::string&, const std::string&) override {}
    OPALError Send(const std::string& document) override {
        File() << document << std::endl;
        return File() ? OPAL_OK : OPAL_ERROR_GENERAL;
    }
    OPALError Shutdown() override { return OPAL_OK; }
    int64_t GetTransactionInterval() override { return kIntervalMs; }
    size_t GetTransactionSize() override { return kMaxDocument; }
    bool IsLevel1Enabled() override { return true; }
    bool IsLevel2Enabled() override { return true; }
    bool IsLevel3Enabled() override { return true; }
    void SetContext(void*) override {}
};

}  // namespace

void WriteLogsTo(const std::string& path) {
    File().open(path, std::ios::binary | std::ios::trunc);
    if (!File())
        throw std::runtime_error(path + ": cannot be written");
    KMTArrangeLogSender([]() -> ILogEventSender* { return new FileLogSender; });
}

bool EndLog() {
    File().close();
    return !File().fail();
}

}  // namespace opal::play
