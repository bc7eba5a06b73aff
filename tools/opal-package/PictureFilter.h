#pragma once

#include <functional>
#include <string>
#include <utility>

#include "opal-package/Av.h"
#include "opal-package/Film.h"

namespace opal::package {

/// What a stream says of its pictures beyond their pixels.
struct PictureProperties {
    /// The orientation as libavfilter's filters name it; empty for an upright picture.
    std::string turn;
    /// The turn exchanges width and height.
    bool sideways = false;
    Colour colour;
    /// PQ or HLG: a picture of more than a television's usual brightness.
    bool highDynamicRange = false;
};

/// Reads them from the stream's header; what the header leaves open is taken as players take it.
PictureProperties PropertiesOf(const AVStream& stream);

/// Makes progressive, upright 4:2:0 pictures of eight bits with the matrix of BT.709 and limited
/// range from whatever a decoder yields: interlaced pictures are deinterlaced, turned ones set
/// upright, high dynamic range is mapped to the usual one.
///
/// Threading: one thread calls; filters bring threads of their own.
/// Ownership: a picture passed on is valid until the callback returns.
/// Units: the pictures' pts are milliseconds.
/// Errors: PackageError (Refused) where the pictures cannot be converted.
class PictureFilter {
  public:
    using Take = std::function<void(AVFrame&)>;

    /// `name` is the source's, for messages.
    PictureFilter(std::string name, PictureProperties properties)
        : m_name(std::move(name)), m_properties(std::move(properties)) {}

    /// What the pictures that come out are described as.
    Colour OutputColour() const;

    void Push(AVFrame& picture, const Take& take);
    /// Passes on what is still held back.
    void Finish(const Take& take);

  private:
    /// What a graph was built for.
    struct Shape {
        int width = 0;
        int height = 0;
        int format = -1;
        bool interlaced = false;
    };

    [[noreturn]] void Fail(const std::string& what, int code) const;
    AVFilterContext* AddFilter(const char* name, const std::string& arguments) const;
    std::string Chain(const Shape& shape) const;
    std::string ColourChain(const Shape& shape) const;
    void Build(const AVFrame& picture, const Shape& shape);
    void Pull(const Take& take);

    std::string m_name;
    PictureProperties m_properties;
    Shape m_shape;
    /// Null as long as pictures pass as they are.
    AvPtr<AVFilterGraph> m_graph;
    AVFilterContext* m_source = nullptr;
    AVFilterContext* m_sink = nullptr;
};

}  // namespace opal::package
