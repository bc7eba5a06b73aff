#pragma once

#include <cstddef>
#include <string>

namespace opal {

/// What a manifest holds.
struct ManifestExtent {
    size_t depth = 0;                ///< of nested elements
    size_t nodes = 0;                ///< elements, attributes, texts, comments
    size_t attributesOfElement = 0;  ///< the most that one element has
};

struct ScannedManifest {
    ManifestExtent extent;
    /// The manifest's elements and attributes, in a form that can be read in one way only.
    std::string rewritten;
    /// There is an element, an attribute or a reference that is none. What stands before it is
    /// rewritten.
    bool broken = false;
};

/// The parser recurses once an element, compares each attribute with all others of its element, and
/// takes a hundred bytes and more for a node of four. These bounds are far beyond any presentation.
constexpr size_t kMaxManifestSize = 4 * 1024 * 1024;
constexpr size_t kMaxManifestDepth = 256;
constexpr size_t kMaxManifestNodes = 65536;
constexpr size_t kMaxManifestAttributes = 256;

/// Reads a manifest as leniently as TinyXML does, and writes what it has read for TinyXML to parse:
/// names as they stand, values between double quotes with every character that has a meaning
/// written as a reference, texts left out, comments and the like emptied. The parser never sees the
/// text itself, so what was counted is what it will make, however the text was meant to be read.
///
/// Stops at the end of the text, at what is broken, and as soon as a bound is passed. Linear in
/// time and space. The text ends at its first zero byte.
ScannedManifest ScanManifest(const std::string& text);

bool IsWithinBounds(const ManifestExtent& extent);

}  // namespace opal
