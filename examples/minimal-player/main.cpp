// The smallest application: plays a manifest to its end.
#include <cstdio>
#include <future>
#include <memory>

#include "StreamingController/IStreamingController.h"
#include "StreamingController/StreamingControllerListener.h"

class Listener : public StreamingControllerListener {
  public:
    std::promise<int> done;

    void OnPlay(OPALPlayRate, size_t, size_t) override { std::puts("playing"); }
    void OnEndOfStream() override { done.set_value(0); }
    void OnError(OPALError code, const char*) override {
        if (code != OPAL_ERROR_AUDIO_UNSUPPORTED)
            done.set_value(1);
    }
    void OnPosition(int64_t ms, size_t) override {
        std::printf("%lld s\n", static_cast<long long>(ms / 1000));
    }
};

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    Listener listener;
    std::unique_ptr<IStreamingController> player(NewStreamingController());
    (void)player->SetNotify(&listener);
    if (player->InitializeFromSMILFile(argv[1], "US", "en", OPAL_WRITER_MODEL_PUSH) != OPAL_OK ||
        player->Play() != OPAL_OK)
        return 1;
    const int result = listener.done.get_future().get();
    return player->Finalize() == OPAL_OK ? result : 1;
}
