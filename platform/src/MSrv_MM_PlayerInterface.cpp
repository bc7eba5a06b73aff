#include "MSrv_MM_PlayerInterface.h"

#include <algorithm>
#include <cstring>

#include "Control.h"
#include "Registry.h"
#include "TvCore.h"

using tvset::Control;
using tvset::Registry;
using tvset::TvCore;
using tvset::control::JournalEntry;
using tvset::control::Operation;

namespace {

constexpr int kFailed = -1;

/// One call: written to the journal before it has any effect, its result after.
class Call {
  public:
    Call(const MSrv_MM_PlayerInterface* player, const char* name, unsigned long item = 0,
         uint64_t value = 0)
        : m_player(player) {
        if (Control::Get().Recording()) {
            m_entry.call = name;
            m_entry.item = item;
            m_entry.value = value;
            m_recording = true;
        }
    }

    Call& Payload(const ST_MMPLAYER_DATA_INFO& data) {
        if (m_recording && data.pData != nullptr) {
            const auto* bytes = static_cast<const uint8_t*>(data.pData);
            m_entry.streamType = data.u32StreamType;
            m_entry.size = data.u32Size;
            m_entry.crc32 = tvset::Crc32(bytes, data.u32Size);
            m_entry.head.assign(bytes, bytes + std::min<uint32_t>(data.u32Size, 8));
        }
        return *this;
    }

    template <size_t size>
    Call& Bytes(const unsigned char (&bytes)[size]) {
        if (m_recording)
            m_entry.record.assign(bytes, bytes + size);
        return *this;
    }

    Call& MayFail(Operation operation) {
        m_fails = Control::Get().TakeFailure(operation);
        return *this;
    }

    template <typename Action>
    int Run(Action action) {
        const size_t index =
            m_recording ? Control::Get().Append(std::move(m_entry)) : static_cast<size_t>(-1);
        const std::shared_ptr<TvCore> core = Registry::Get().CoreOf(m_player);
        const int result = core && !m_fails ? action(*core) : kFailed;
        if (m_recording)
            Control::Get().SetResult(index, result);
        return result;
    }

  private:
    const MSrv_MM_PlayerInterface* const m_player;
    JournalEntry m_entry;
    bool m_recording = false;
    bool m_fails = false;
};

uint32_t Word(const unsigned char* bytes) {
    uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

}  // namespace

MSrv_MM_PlayerInterface::MSrv_MM_PlayerInterface() {
    Registry::Get().Create(this);
}

MSrv_MM_PlayerInterface::~MSrv_MM_PlayerInterface() {
    Registry::Get().Destroy(this);
}

int MSrv_MM_PlayerInterface::MM_Initialize() {
    return Call(this, "MM_Initialize").MayFail(Operation::Initialize).Run([](TvCore& core) {
        return core.Connect();
    });
}

int MSrv_MM_PlayerInterface::MM_Finalize() {
    return Call(this, "MM_Finalize").MayFail(Operation::Finalize).Run([](TvCore& core) {
        return core.Disconnect();
    });
}

int MSrv_MM_PlayerInterface::AddEventRecipient(MSRV_MM_EVENT_RECIPIENT recipient) {
    return Call(this, "AddEventRecipient").Run([&](TvCore& core) {
        if (recipient == nullptr)
            return kFailed;
        core.Events().Add(recipient);
        return 0;
    });
}

int MSrv_MM_PlayerInterface::RemoveEventRecipient(MSRV_MM_EVENT_RECIPIENT recipient) {
    return Call(this, "RemoveEventRecipient").Run([&](TvCore& core) {
        return core.Events().Remove(recipient) ? 0 : kFailed;
    });
}

int MSrv_MM_PlayerInterface::MM_CreateMediaItem(const ST_MEDIA_INFO& info, unsigned long* item) {
    return Call(this, "MM_CreateMediaItem")
        .Bytes(info.bytes)
        .MayFail(Operation::CreateMediaItem)
        .Run([&](TvCore& core) { return core.CreateItem(info, item); });
}

int MSrv_MM_PlayerInterface::MM_DeleteMediaItem(unsigned long item) {
    return Call(this, "MM_DeleteMediaItem", item).MayFail(Operation::Delete).Run([&](TvCore& core) {
        return core.DeleteItem(item);
    });
}

int MSrv_MM_PlayerInterface::MM_Play(unsigned long item) {
    return Call(this, "MM_Play", item).MayFail(Operation::Play).Run([&](TvCore& core) {
        return core.Play(item);
    });
}

int MSrv_MM_PlayerInterface::MM_Stop(unsigned long item) {
    return Call(this, "MM_Stop", item).MayFail(Operation::Stop).Run([&](TvCore& core) {
        return core.Stop(item);
    });
}

int MSrv_MM_PlayerInterface::MM_SetTrickMode(unsigned long item, const ST_TRICK_INFO& info) {
    return Call(this, "MM_SetTrickMode", item, info.u32Mode)
        .MayFail(Operation::TrickMode)
        .Run([&](TvCore& core) { return core.SetTrickMode(item, info); });
}

int MSrv_MM_PlayerInterface::MM_SetDisplayRectangle(unsigned long item, const ST_RECT& rect) {
    return Call(this, "MM_SetDisplayRectangle", item).Run([&](TvCore& core) {
        return core.SetRectangle(item, rect);
    });
}

int MSrv_MM_PlayerInterface::MM_PushPayload(unsigned long item, ST_MMPLAYER_DATA_INFO* data) {
    if (data == nullptr)
        return kFailed;
    return Call(this, "MM_PushPayload", item, data->u32Pts).Payload(*data).Run([&](TvCore& core) {
        return core.Push(item, *data);
    });
}

uint32_t MSrv_MM_PlayerInterface::MM_GetVideoPTS() {
    const std::shared_ptr<TvCore> core = Registry::Get().CoreOf(this);
    return core ? core->VideoPts() : 0;
}

int MSrv_MM_PlayerInterface::MM_SetFlushData(unsigned long item, EN_DATA_TYPE type) {
    return Call(this, "MM_SetFlushData", item, type)
        .MayFail(Operation::Flush)
        .Run([&](TvCore& core) { return type == EN_DATA_TYPE_VIDEO ? core.Flush(item) : kFailed; });
}

int MSrv_MM_PlayerInterface::MM_DemuxReset(unsigned char flag) {
    // What is pushed is demultiplexed already.
    return Call(this, "MM_DemuxReset", 0, flag).Run([](TvCore&) { return 0; });
}

int MSrv_MM_PlayerInterface::MM_GetVideoDataBufferInfo(unsigned long,
                                                       EN_PLAYER_VIDEO_BUFFER_INFO what,
                                                       unsigned long* value) {
    const std::shared_ptr<TvCore> core = Registry::Get().CoreOf(this);
    if (!core || value == nullptr || what != EN_PLAYER_VIDEO_BUFFER_LEVEL)
        return kFailed;
    *value = core->Gauge();
    return 0;
}

int MSrv_MM_PlayerInterface::MM_SwitchAudioTrack(unsigned long item,
                                                 const ST_PLAYER_AUDIO_PARAM& param) {
    return Call(this, "MM_SwitchAudioTrack", item, Word(param.bytes + 56))
        .Bytes(param.bytes)
        .MayFail(Operation::SwitchAudio)
        .Run([&](TvCore& core) {
            return core.SwitchAudio(item, Word(param.bytes + 20), Word(param.bytes + 16));
        });
}

int MSrv_MM_PlayerInterface::MM_GetMetaData(unsigned long, EN_PLAYER_METADATA what,
                                            unsigned char* value, unsigned long size) {
    const std::shared_ptr<TvCore> core = Registry::Get().CoreOf(this);
    if (!core || value == nullptr || size < sizeof(uint16_t) ||
        (what != EN_PLAYER_METADATA_WIDTH && what != EN_PLAYER_METADATA_HEIGHT))
        return kFailed;
    int width = 0;
    int height = 0;
    core->PictureSize(width, height);
    const auto figure = static_cast<uint16_t>(what == EN_PLAYER_METADATA_WIDTH ? width : height);
    std::memcpy(value, &figure, sizeof(figure));
    return 0;
}

int MSrv_MM_PlayerInterface::MM_GetPlayPosition(unsigned long, unsigned long* ms) {
    const std::shared_ptr<TvCore> core = Registry::Get().CoreOf(this);
    if (!core || ms == nullptr)
        return kFailed;
    *ms = core->VideoPts();
    return 0;
}

int MSrv_MM_PlayerInterface::MM_SetAudioVolume(unsigned char volume) {
    return Call(this, "MM_SetAudioVolume", 0, volume).Run([&](TvCore& core) {
        return core.SetVolume(volume);
    });
}

int MSrv_MM_PlayerInterface::MM_SetVideoBlackScreen(unsigned char on) {
    return Call(this, "MM_SetVideoBlackScreen", 0, on).Run([&](TvCore& core) {
        return core.SetBlack(on != 0);
    });
}
