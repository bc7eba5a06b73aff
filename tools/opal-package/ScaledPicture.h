#pragma once

#include <map>
#include <utility>

#include "opal-package/Av.h"
#include "opal-package/Film.h"

namespace opal::package {

/// A 4:2:0 picture, scaled to whatever sizes are asked for.
///
/// Ownership: the picture that is set stays the caller's.
/// Errors: PackageError.
class ScaledPicture : public FilmPicture {
  public:
    void Set(const AVFrame& frame) {
        m_source = &frame;
        m_upToDate.clear();
    }

    AVFrame& At(int width, int height, unsigned level) override;

  private:
    struct Size {
        AvPtr<AVFrame> frame;
        AvPtr<SwsContext> scaler;
    };

    void Scale(Size& size) const;

    const AVFrame* m_source = nullptr;
    std::map<std::pair<int, int>, Size> m_sizes;
    std::map<std::pair<int, int>, bool> m_upToDate;
};

}  // namespace opal::package
