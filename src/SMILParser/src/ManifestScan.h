#pragma once

#include <cstddef>
#include <string>

namespace opal {

/// What the XML parser would make of a text, counted without making it.
struct ManifestExtent {
    size_t depth = 0;                ///< of nested elements
    size_t nodes = 0;                ///< elements, attributes, texts, comments
    size_t attributesOfElement = 0;  ///< the most that one element has
};

/// The parser recurses once an element, compares each attribute with all others of its element, and
/// takes a hundred bytes and more for a node of four. These bounds are far beyond any presentation.
constexpr size_t kMaxManifestSize = 4 * 1024 * 1024;
constexpr size_t kMaxManifestDepth = 256;
constexpr size_t kMaxManifestNodes = 65536;
constexpr size_t kMaxManifestAttributes = 256;

/// Follows TinyXML's own reading of the text byte by byte, lenience and all: another idea of where
/// a quoted value ends would let a hostile text hide elements from the count. Stops where the
/// parser stops with an error, and as soon as a bound is passed. Linear in time, constant in space.
/// The text ends at its first zero byte.
ManifestExtent ScanManifest(const std::string& text);

bool IsWithinBounds(const ManifestExtent& extent);

}  // namespace opal
