// Any bytes as the reply, head and all, to every call of a session: nothing but the listed codes
// comes of them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ContentSession/src/ProtectedContent_WNC.h"
#include "ContentSession/src/WNCLogEventSender.h"

namespace {

/// Gives the same bytes to every call, in pieces.
class ReplayedReply : public opal::IServiceConnection {
  public:
    ReplayedReply(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    Result Connect(const std::string&, const opal::StopSignal*) override {
        m_at = 0;
        return Result::kConnected;
    }
    bool Send(const char*, size_t) override { return true; }
    size_t Receive(char* bytes, size_t size) override {
        constexpr size_t kPiece = 61;
        const size_t count = std::min({size, m_size - m_at, kPiece});
        std::memcpy(bytes, m_data + m_at, count);
        m_at += count;
        return count;
    }
    void Close() override {}
    bool Refresh() override { return true; }

  private:
    const uint8_t* const m_data;
    const size_t m_size;
    size_t m_at = 0;
};

void Check(OPALError code) {
    switch (code) {
        case OPAL_OK:
        case OPAL_ERROR_CONTENT_SESSION:
        case OPAL_ERROR_NO_MEMORY:
        case OPAL_ERROR_SERVICE_21:
        case OPAL_ERROR_SERVICE_27:
            return;
        default:
            std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ProtectedContent_WNC content({}, [&](const opal::ServiceTimeouts&) {
        return std::unique_ptr<opal::IServiceConnection>(new ReplayedReply(data, size));
    });
    qutl::MemoryBuffer<unsigned char> bytes;
    void* session = nullptr;
    Check(content.Prepare(bytes, &session));
    Check(content.Initialize(bytes, "US", "en"));
    std::string asset;
    Check(content.Open("ticket", asset));
    AlgorithmConfig::Global global;
    AlgorithmConfig::Mode agile, steady;
    Check(content.GetStreamingAlgorithmConfig(global, agile, steady));
    Check(content.SetupStream());
    Check(content.ReportPlayEvent(1, 2, 3, 4, 5));
    Check(content.GetLastErrorText(bytes));
    if (!bytes.IsEmpty() && bytes.GetData()[bytes.GetSize() - 1] != '\0')
        std::abort();
    WNCLogEventSender sender(nullptr);
    sender.SetContext(session);
    Check(sender.Initialize());
    return 0;
}
