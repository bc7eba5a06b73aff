#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <sstream>
#include <utility>

#include "opal-play/Verification.h"

namespace opal::play {
namespace {

using Tree = boost::property_tree::ptree;

// No manifest that the library takes is deeper.
constexpr int kMostDepth = 64;

OPALStreamType TypeOf(const std::string& element) {
    if (element == "video")
        return OPAL_STREAM_VIDEO;
    if (element == "audio")
        return OPAL_STREAM_AUDIO;
    return element == "textstream" ? OPAL_STREAM_SUBTITLE : OPAL_STREAM_NONE;
}

void Collect(const Tree& tree, int depth, std::vector<MediaFile>& files) {
    for (const auto& [name, child] : tree) {
        const OPALStreamType type = TypeOf(name);
        const std::string url = child.get("<xmlattr>.src", "");
        if (type != OPAL_STREAM_NONE && !url.empty())
            files.push_back({type, url});
        if (depth < kMostDepth)
            Collect(child, depth + 1, files);
    }
}

}  // namespace

std::vector<MediaFile> FindMediaFiles(const std::string& manifest) {
    std::vector<MediaFile> files;
    // The reader descends as deep as the text does; a manifest has few elements within elements.
    int depth = 0;
    for (size_t i = 0; i + 1 < manifest.size(); ++i) {
        const char next = manifest[i + 1];
        if (manifest[i] == '<' && next != '?' && next != '!')
            depth += next == '/' ? -1 : 1;
        else if (manifest[i] == '/' && next == '>')
            --depth;
        if (depth > kMostDepth)
            return files;
    }
    try {
        std::istringstream text(manifest);
        Tree tree;
        boost::property_tree::read_xml(text, tree);
        Collect(tree, 0, files);
    } catch (const boost::property_tree::ptree_error&) {
        files.clear();
    }
    return files;
}

}  // namespace opal::play
