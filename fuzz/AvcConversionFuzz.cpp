// A picture out of a file, on its way into the player: length prefixes become start codes in place,
// and nothing else changes.

#include <algorithm>
#include <vector>

#include "Common/Assert.h"
#include "Common/StopSignal.h"
#include "PlatformAdapter/Mstar/HABVideo.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"

namespace {

/// A session that is being ended: no payload waits for a player.
struct Session {
    Session() {
        stop.Raise();
        arch.stop = &stop;
        arch.audioConfigured = 1;
        OPAL_ASSERT(HABVideo_New(&video, &arch, nullptr) == HAB_OK, "a video object");
    }
    opal::StopSignal stop;
    HABArch arch;
    HHABVIDEO video = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Session* const session = new Session;  // for the life of the process
    if (size == 0)
        return 0;
    std::vector<uint8_t> picture(data, data + size);
    const int result =
        HABVideo_Queue(session->video, picture.data(), static_cast<int32_t>(size), 0);
    OPAL_ASSERT(result == HAB_OK, "taken");

    std::vector<uint8_t> expected(data, data + size);
    for (size_t at = 0; at + 4 <= size;) {
        const uint32_t length = static_cast<uint32_t>(data[at]) << 24 |
                                static_cast<uint32_t>(data[at + 1]) << 16 |
                                static_cast<uint32_t>(data[at + 2]) << 8 | data[at + 3];
        if (length == 0 || length > 0x7FFFFFFFu)
            break;
        std::copy_n("\0\0\0\1", 4, expected.begin() + static_cast<std::ptrdiff_t>(at));
        at += std::min<size_t>(size, size_t{4} + length);
    }
    OPAL_ASSERT(picture == expected, "prefixes alone are replaced");
    return 0;
}
