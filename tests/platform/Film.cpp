#include "Film.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cmath>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

#include "support/TemporaryDirectory.h"

namespace film {
namespace {

/// What ffmpeg makes with these arguments.
const Stream& Make(const std::string& arguments) {
    static std::map<std::string, Stream> made;
    Stream& stream = made[arguments];
    if (!stream.empty())
        return stream;
    const opal::test::TemporaryDirectory folder;
    const std::string file = folder.File("film.nut");
    AVFormatContext* input = nullptr;
    if (std::system(("ffmpeg -v error -f lavfi -i " + arguments + ' ' + file).c_str()) != 0 ||
        avformat_open_input(&input, file.c_str(), nullptr, nullptr) < 0)
        throw std::runtime_error("no film from ffmpeg " + arguments);
    AVPacket* packet = av_packet_alloc();
    int64_t first = AV_NOPTS_VALUE;
    for (; av_read_frame(input, packet) >= 0; av_packet_unref(packet)) {
        first = first == AV_NOPTS_VALUE ? packet->pts : first;
        const int64_t pts =
            av_rescale_q(packet->pts - first, input->streams[0]->time_base, {1, 1000});
        stream.push_back({{packet->data, packet->data + packet->size},
                          static_cast<uint32_t>(pts),
                          (packet->flags & AV_PKT_FLAG_KEY) != 0});
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
    return stream;
}

}  // namespace

int GreyOf(int n) {
    return static_cast<int>(std::lround((40 + 2 * n - 16) * 255.0 / 219.0));
}

const Stream& Video(int width, int height, const char* aspect) {
    return Make("color=s=16x16:r=25,geq=lum='40+2*N':cb=128:cr=128,scale=" + std::to_string(width) +
                ':' + std::to_string(height) + ",setsar=" + aspect +
                " -frames:v 75 -c:v libx264 -preset veryfast -crf 10 -bf 2 -g 25 -x264-params "
                "repeat-headers=1:b-adapt=0:scenecut=0:min-keyint=25:open-gop=0");
}

const Stream& Green(int height, const char* matrix, const char* told) {
    return Make("color=0x00FF00:s=16x16:r=25,format=gbrp,scale=" + std::to_string(height * 2) +
                ':' + std::to_string(height) + ":out_color_matrix=" + matrix +
                ",format=yuv420p,setsar=1 -frames:v 25 -c:v libx264 -preset veryfast -crf 1 -g 25 "
                "-colorspace " +
                told + " -x264-params repeat-headers=1");
}

const Stream& Audio(int ms, int sampleRate, int channels) {
    return Make("sine=r=" + std::to_string(sampleRate) + " -t " + std::to_string(ms) + "ms -ac " +
                std::to_string(channels) + " -c:a aac");
}

}  // namespace film
