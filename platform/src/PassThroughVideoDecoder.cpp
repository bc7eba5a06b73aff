#include "Decoder.h"

namespace tvset {
namespace {

/// Each access unit is a picture, at once. They wait undecoded for their time, which sorts them.
class PassThroughVideoDecoder : public VideoDecoder {
  public:
    unsigned Decode(const Unit& unit, std::vector<Picture>& out) override {
        Picture picture;
        picture.pts = unit.pts;
        picture.cost = unit.Cost();
        out.push_back(std::move(picture));
        return 0;
    }
    size_t Held() const override { return 0; }
    void Drain(std::vector<Picture>&) override {}
    void Reset() override {}
    bool InOrder() const override { return false; }
    size_t MaxWaiting() const override { return SIZE_MAX / 2; }
};

}  // namespace

std::unique_ptr<VideoDecoder> NewPassThroughVideoDecoder() {
    return std::make_unique<PassThroughVideoDecoder>();
}

}  // namespace tvset
