// The pull model: takes the pictures of a film block by block, at the pace of the film, and writes
// them as H.264 with start codes, which any player reads: pull-player MANIFEST FILE.h264
#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "StreamingController/IStreamingController.h"
#include "StreamingController/StreamingControllerListener.h"

class Listener : public StreamingControllerListener {
  public:
    std::atomic<bool> failed{false};

    void OnError(OPALError code, const char*) override {
        if (code != OPAL_ERROR_AUDIO_UNSUPPORTED)
            failed = true;
    }
};

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Block = qutl::MemoryBuffer<unsigned char>;

// Each NAL unit has its length in four bytes in front; a start code takes the same room. The file
// is not to be trusted, so a length may be anything.
void WriteUnits(std::ofstream& file, const Block& block) {
    const unsigned char* data = block.GetData();
    for (size_t at = 0; at + 4 <= block.GetSize();) {
        const size_t size = size_t{data[at]} << 24 | size_t{data[at + 1]} << 16 |
                            size_t{data[at + 2]} << 8 | data[at + 3];
        at += 4;
        if (size > block.GetSize() - at)
            return;
        file.write("\0\0\0\1", 4)
            .write(reinterpret_cast<const char*>(data + at), static_cast<std::streamsize>(size));
        at += size;
    }
}

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    std::ofstream file(argv[2], std::ios::binary);
    Listener listener;
    std::unique_ptr<IStreamingController> player(NewStreamingController());
    (void)player->SetNotify(&listener);
    OPALError code = player->InitializeFromSMILFile(argv[1], "US", "en", OPAL_WRITER_MODEL_PULL);
    if (code == OPAL_OK)
        code = player->Play();
    steady_clock::time_point shown;
    int64_t time = 0, last = 0, duration = 0;
    uint32_t level = 0, flags = 0;
    Block block;
    while ((code == OPAL_OK || code == OPAL_ERROR_NOT_YET) && !listener.failed) {
        code = player->PullVideoBlock(block, time, duration, level, flags);
        if (code == OPAL_ERROR_NOT_YET)
            std::this_thread::sleep_for(milliseconds(5));
        if (code != OPAL_OK)
            continue;
        WriteUnits(file, block);
        // The application paces: it keeps a second ahead of what is shown. A block that had to be
        // waited for is shown when it comes.
        shown = std::max(shown + milliseconds(time - last), steady_clock::now());
        last = time;
        std::this_thread::sleep_until(shown - milliseconds(1000));
    }
    const bool whole = code == OPAL_ERROR_END_OF_DATA && file.flush();
    return player->Finalize() == OPAL_OK && whole ? 0 : 1;
}
