#pragma once

#include <memory>
#include <string>

#include "Decoder.h"
#include "MSrv_MM_PlayerInterface.h"

namespace tvset {

/// The panel.
///
/// Threading: one thread at a time.
class VideoOut {
  public:
    virtual ~VideoOut() = default;
    virtual void Show(const Picture& picture) = 0;
    /// Covers the picture, or shows it again.
    virtual void SetBlack(bool black) = 0;
    /// Where pictures appear; empty: the whole window.
    virtual void SetRectangle(const ST_RECT& rect) = 0;
};

class NullVideoOut : public VideoOut {
  public:
    void Show(const Picture&) override {}
    void SetBlack(bool) override {}
    void SetRectangle(const ST_RECT&) override {}
};

/// Null, with the reason in `error`, when there is no such window to be had.
std::unique_ptr<VideoOut> NewDirectFBVideoOut(std::string& error);

}  // namespace tvset
