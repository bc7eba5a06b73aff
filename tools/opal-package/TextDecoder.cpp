#include "opal-package/TextDecoder.h"

#include <algorithm>

namespace opal::package {
namespace {

/// Fields in front of a dialogue line's text.
constexpr int kFieldsBeforeText = 8;
/// How long a text stands that does not say.
constexpr int64_t kUnsaidMs = 4000;

/// Reads a block of overrides, "{\i1\p1}": whether a drawing begins or ends in it.
void ReadOverrides(const std::string& block, bool& drawing) {
    for (size_t at = block.find("\\p"); at != std::string::npos; at = block.find("\\p", at + 2)) {
        if (at + 2 < block.size() && block[at + 2] >= '0' && block[at + 2] <= '9')
            drawing = block[at + 2] != '0';
    }
}

void Trim(std::string& text) {
    const char* blank = " \t\r\n";
    const size_t end = text.find_last_not_of(blank);
    text.erase(end == std::string::npos ? 0 : end + 1);
    text.erase(0, text.find_first_not_of("\r\n"));
}

}  // namespace

std::string PlainText(const std::string& dialogue, bool comments) {
    size_t at = 0;
    for (int field = 0; field < kFieldsBeforeText; ++field) {
        at = dialogue.find(',', at);
        if (at == std::string::npos)
            return {};
        ++at;
    }
    std::string text;
    bool drawing = false;
    for (; at < dialogue.size(); ++at) {
        const char next = at + 1 < dialogue.size() ? dialogue[at + 1] : '\0';
        if (dialogue[at] == '\\' && next != '\0' &&
            std::string("Nnh{}\\").find(next) != std::string::npos) {
            text += next == 'h' ? ' ' : next == 'N' || next == 'n' ? '\n' : next;
            ++at;
        } else if (const size_t end = dialogue.find('}', at);
                   dialogue[at] == '{' && (comments || next == '\\') && end != std::string::npos) {
            ReadOverrides(dialogue.substr(at, end - at), drawing);
            at = end;
        } else if (!drawing && dialogue[at] != '\r') {
            text += dialogue[at];
        }
    }
    Trim(text);
    return text;
}

bool TextDecoder::IsText(const AVStream& stream) {
    const AVCodecDescriptor* codec = avcodec_descriptor_get(stream.codecpar->codec_id);
    return codec != nullptr && codec->type == AVMEDIA_TYPE_SUBTITLE &&
           (codec->props & AV_CODEC_PROP_TEXT_SUB) != 0;
}

int TextDecoder::Open(const AVStream& stream) {
    const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
    if (codec == nullptr)
        return AVERROR_DECODER_NOT_FOUND;
    m_context.reset(avcodec_alloc_context3(codec));
    if (!m_context)
        return AVERROR(ENOMEM);
    const int code = avcodec_parameters_to_context(m_context.get(), stream.codecpar);
    m_context->pkt_timebase = stream.time_base;
    return code < 0 ? code : avcodec_open2(m_context.get(), codec, nullptr);
}

int TextDecoder::Decode(AVPacket& packet, std::vector<SubtitleText>& texts) {
    AVSubtitle subtitle = {};
    int there = 0;
    const int code = avcodec_decode_subtitle2(m_context.get(), &subtitle, &there, &packet);
    if (code < 0 || there == 0)
        return code;
    const AVCodecID format = m_context->codec_id;
    const bool comments = format == AV_CODEC_ID_ASS || format == AV_CODEC_ID_SSA;
    SubtitleText text;
    for (unsigned i = 0; i < subtitle.num_rects; ++i) {
        const AVSubtitleRect& part = *subtitle.rects[i];
        const std::string line = part.type == SUBTITLE_ASS && part.ass != nullptr
                                     ? PlainText(part.ass, comments)
                                 : part.text != nullptr ? part.text
                                                        : "";
        text.text += (text.text.empty() || line.empty() ? "" : "\n") + line;
    }
    avsubtitle_free(&subtitle);
    if (packet.pts != AV_NOPTS_VALUE && !text.text.empty()) {
        const AVRational milliseconds = {1, 1000};
        text.startMs = av_rescale_q(packet.pts, m_context->pkt_timebase, milliseconds);
        const int64_t lasts = av_rescale_q(packet.duration, m_context->pkt_timebase, milliseconds);
        text.endMs = text.startMs + (lasts > 0 ? lasts : kUnsaidMs);
        texts.push_back(std::move(text));
    }
    return code;
}

}  // namespace opal::package
