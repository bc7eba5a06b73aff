// A manifest. The bounds that guard the XML parser hold for what the scan has written, so the
// document of that must be what was counted: elements and depth exactly, unless it has an error.

#include <tinyxml.h>

#include <algorithm>
#include <memory>
#include <string>

#include "Common/Assert.h"
#include "Common/XmlParse.h"
#include "Common/logging/Logger.h"
#include "SMILParser/ISMILParser.h"
#include "SMILParser/src/ManifestScan.h"

namespace {

void Measure(const TiXmlNode& node, size_t depth, opal::ManifestExtent& extent) {
    if (const TiXmlElement* element = node.ToElement()) {
        extent.depth = std::max(extent.depth, ++depth);
        size_t attributes = 0;
        for (const TiXmlAttribute* a = element->FirstAttribute(); a; a = a->Next())
            ++attributes;
        extent.nodes += attributes;
        extent.attributesOfElement = std::max(extent.attributesOfElement, attributes);
    }
    for (const TiXmlNode* child = node.FirstChild(); child; child = child->NextSibling()) {
        ++extent.nodes;
        Measure(*child, depth, extent);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        getLogger("opal.SMILParser")->setLevel(log4cxx::Level::getOff());
        return true;
    }();
    (void)quiet;
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(text.find('\0') == std::string::npos ? size : text.find('\0'));
    const opal::ScannedManifest scanned = opal::ScanManifest(text);
    const opal::ManifestExtent& counted = scanned.extent;
    if (opal::IsWithinBounds(counted)) {
        TiXmlDocument document;
        document.SetTabSize(0);
        const bool parsed = opal::ParseXml(document, scanned.rewritten) && !scanned.broken;
        opal::ManifestExtent found;
        Measure(document, 0, found);
        OPAL_ASSERT(parsed ? found.depth == counted.depth : found.depth <= counted.depth, "depth");
        OPAL_ASSERT(found.nodes <= counted.nodes, "nodes");
        OPAL_ASSERT(found.attributesOfElement <= counted.attributesOfElement, "attributes");
        OPAL_ASSERT(!parsed || opal::ScanManifest(scanned.rewritten).rewritten == scanned.rewritten,
                    "what is written is read as it was meant");
    }
    const std::unique_ptr<ISMILParser> parser(NewSMILParser());
    (void)parser->ParseSMILData(text.c_str(), std::max<size_t>(size, 1));
    boost::shared_ptr<IVideoLevel> level, previous;
    for (size_t i = 0; i < parser->GetVideoLevelCount(); ++i, previous = level)
        OPAL_ASSERT(parser->GetVideoLevel(i, level) == OPAL_OK, "levels are there");
    return 0;
}
