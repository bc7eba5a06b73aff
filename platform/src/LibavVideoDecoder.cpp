extern "C" {
#include <libavcodec/avcodec.h>
}

#include <set>
#include <stdexcept>

#include "Decoder.h"

namespace tvset {
namespace {

/// A 4K panel's pictures; a parameter set that asks for more is refused before memory is taken.
constexpr int64_t kMaxPixels = int64_t{4096} * 2304;
/// Decoded pictures waiting: enough to ride over an expensive one.
constexpr size_t kMaxWaiting = 4;
/// Of units that are kept to be decoded again.
constexpr size_t kGroupLimit = size_t{32} << 20;

struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

/// True if the Annex B access unit holds a slice of an IDR picture.
bool IsKey(const Unit& unit) {
    const uint8_t* p = unit.data.get();
    for (size_t i = 0; i + 3 < unit.size; ++i) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            const int type = p[i + 3] & 31;
            if (type >= 1 && type <= 5) {
                return type == 5;  // the first slice tells
            }
            i += 2;
        }
    }
    return false;
}

void ReleaseUnit(void* opaque, uint8_t*) {
    delete static_cast<std::shared_ptr<uint8_t[]>*>(opaque);
}

/// H.264 through libavcodec, on the caller's thread only: with more threads the decoder would hold
/// back a picture for each.
///
/// A decoder that nothing follows for a while is drained: at the end of the film, before a gap, in
/// trick play. It must then start anew, so the units since the last key frame are kept: should a
/// picture come after all that refers to them, they are decoded again first and their second
/// appearance dropped.
class LibavVideoDecoder : public VideoDecoder {
  public:
    LibavVideoDecoder() : m_packet(av_packet_alloc()) {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
        m_context.reset(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
        if (!m_context || !m_packet)
            throw std::runtime_error("no H.264 decoder in libavcodec");
        m_context->thread_count = 1;
        m_context->pkt_timebase = {1, 1000};
        m_context->max_pixels = kMaxPixels;
        // Errors are counted, not printed.
        m_context->log_level_offset = AV_LOG_TRACE;
        if (avcodec_open2(m_context.get(), codec, nullptr) < 0)
            throw std::runtime_error("libavcodec's H.264 decoder does not open");
    }

    unsigned Decode(const Unit& unit, std::vector<Picture>& out) override {
        const bool key = IsKey(unit);
        if (m_drained && !key)
            DecodeAgain(out);
        m_drained = false;
        Keep(unit, key);
        std::vector<Picture> pictures;
        const unsigned errors = Send(unit, pictures);
        ++m_sent;
        Take(pictures, out);
        return errors;
    }

    size_t Held() const override {
        return m_groupKept && m_sent > m_received ? static_cast<size_t>(m_sent - m_received) : 0;
    }

    void Drain(std::vector<Picture>& out) override {
        std::vector<Picture> pictures;
        if (avcodec_send_packet(m_context.get(), nullptr) >= 0)
            (void)Receive(pictures);
        avcodec_flush_buffers(m_context.get());
        Take(pictures, out);
        m_again.clear();
        m_sent = m_received = 0;
        m_drained = true;
    }

    void Reset() override {
        avcodec_flush_buffers(m_context.get());
        m_group.clear();
        m_groupBytes = 0;
        m_groupKept = m_drained = false;
        m_again.clear();
        m_sent = m_received = 0;
    }

    bool InOrder() const override { return true; }
    size_t MaxWaiting() const override { return kMaxWaiting; }

  private:
    void Keep(const Unit& unit, bool key) {
        if (key) {
            m_group.clear();
            m_groupBytes = 0;
            m_groupKept = true;
        }
        m_groupBytes += unit.Cost();
        m_groupKept = m_groupKept && m_groupBytes <= kGroupLimit;
        if (m_groupKept)
            m_group.push_back(unit);
        else
            m_group.clear();
    }

    void DecodeAgain(std::vector<Picture>& out) {
        for (const Unit& unit : m_group)
            m_again.insert(unit.pts);
        std::vector<Picture> pictures;
        for (const Unit& unit : m_group) {
            (void)Send(unit, pictures);  // its errors were counted the first time
        }
        Take(pictures, out);
    }

    unsigned Send(const Unit& unit, std::vector<Picture>& out) {
        auto* owner = new std::shared_ptr<uint8_t[]>(unit.data);
        m_packet->buf = av_buffer_create(unit.data.get(), unit.size + AV_INPUT_BUFFER_PADDING_SIZE,
                                         ReleaseUnit, owner, AV_BUFFER_FLAG_READONLY);
        if (m_packet->buf == nullptr) {
            delete owner;
            return 1;
        }
        m_packet->data = unit.data.get();
        m_packet->size = static_cast<int>(unit.size);
        m_packet->pts = unit.pts;
        // All output is taken after each packet, so the decoder never asks to wait.
        unsigned errors = avcodec_send_packet(m_context.get(), m_packet.get()) < 0 ? 1 : 0;
        av_packet_unref(m_packet.get());
        return errors + Receive(out);
    }

    unsigned Receive(std::vector<Picture>& out) {
        unsigned errors = 0;
        for (;;) {
            std::shared_ptr<AVFrame> frame(av_frame_alloc(), [](AVFrame* f) { av_frame_free(&f); });
            const int result =
                frame ? avcodec_receive_frame(m_context.get(), frame.get()) : AVERROR(ENOMEM);
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                return errors;
            if (result < 0)
                return errors + 1;
            errors += frame->decode_error_flags != 0 ? 1 : 0;
            Picture picture;
            picture.pts = static_cast<uint32_t>(frame->pts);
            picture.frame = std::move(frame);
            out.push_back(std::move(picture));
        }
    }

    void Take(std::vector<Picture>& pictures, std::vector<Picture>& out) {
        for (Picture& picture : pictures) {
            const auto again = m_again.find(picture.pts);
            if (again != m_again.end()) {
                m_again.erase(again);
                continue;
            }
            ++m_received;
            out.push_back(std::move(picture));
        }
    }

    std::unique_ptr<AVCodecContext, ContextFree> m_context;
    std::unique_ptr<AVPacket, PacketFree> m_packet;
    std::vector<Unit> m_group;  ///< since the last key frame, with it
    size_t m_groupBytes = 0;
    bool m_groupKept = false;         ///< whole
    bool m_drained = false;           ///< nothing was decoded since
    std::multiset<uint32_t> m_again;  ///< PTS of what will come out a second time
    uint64_t m_sent = 0;
    uint64_t m_received = 0;
};

}  // namespace

std::unique_ptr<VideoDecoder> NewLibavVideoDecoder() {
    return std::make_unique<LibavVideoDecoder>();
}

}  // namespace tvset
