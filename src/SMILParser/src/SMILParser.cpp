#include "SMILParser/src/SMILParser.h"

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/scoped_ptr.hpp>
#include <cstring>
#include <new>

#include "Common/MemoryBuffer.h"
#include "Common/ObjectFactory.h"
#include "Common/XmlParse.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/Logger.h"
#include "SMILParser/src/ManifestScan.h"
#include "SMILParser/src/TrackImpl.h"
#include "StreamingReader/HTTPFile/HTTPRequest.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace {

const char kTrickProfile[] = "TavoPlusTrickTrack";
const char kFileScheme[] = "file://";
constexpr size_t kLanguageLength = 3;

bool IsTrickTrack(const TiXmlElement& video) {
    for (const TiXmlAttribute* attribute = video.FirstAttribute(); attribute;
         attribute = attribute->Next()) {
        const std::string name = attribute->Name();
        if ((name == "systemProfile" || name == "systemBaseProfile") &&
            attribute->ValueStr() == kTrickProfile)
            return true;
    }
    return false;
}

int ReadInteger(const TiXmlElement& element, const char* name) {
    int value = 0;
    if (element.QueryIntAttribute(name, &value) != TIXML_SUCCESS)
        return 0;
    return value;
}

bool IsLocal(const std::string& location) {
    return location.compare(0, sizeof(kFileScheme) - 1, kFileScheme) == 0;
}

template <typename List>
bool HasLocal(const List& list) {
    return std::any_of(list.begin(), list.end(),
                       [](const auto& entry) { return IsLocal(entry->GetURI()); });
}

template <typename List, typename Pointer>
OPALError GetFromList(const List& list, size_t index, Pointer& out) {
    out.reset();
    if (index >= list.size())
        return OPAL_ERROR_OUT_OF_RANGE;
    out = list[index];
    return OPAL_OK;
}

}  // namespace

struct SMILParser::VideoAttributes {
    std::string uri;
    uint32_t headerRequestSize = 0;
    int vbvSize = 0;
    int bitrate = 0;
    int width = 0;
    int height = 0;
};

struct SMILParser::TrackAttributes {
    std::string uri;
    std::string language;
    uint32_t headerRequestSize = 0;
    int reservedBandwidth = 0;
    int assetId = 0;
};

SMILParser::SMILParser() : m_logger(getLogger("opal.SMILParser")) {
    // No row and column of an error is looked at, and counting them costs a pass over the text.
    m_document.SetTabSize(0);
}

OPALError SMILParser::ParseSMILFile(const std::string& location) {
    const boost::scoped_ptr<IHTTPFile> file(ObjectFactory::Instance().NewHTTPFile(false));
    if (!file) {
        LOG4CXX_ERROR(m_logger, "No HTTP file for SMIL file: '" << location << "'");
        return OPAL_ERROR_GENERAL;
    }
    file->SetStopSignal(m_pStop);
    file->SetLabel({opal::RequestPurpose::Manifest});
    OPALError result = file->Open(location);
    if (result != OPAL_OK) {
        LOG4CXX_ERROR(m_logger, "HTTP error opening SMIL file: '"
                                    << location << "' httpfile error: '" << int{result} << "'");
        return result;
    }
    int64_t fileSize = 0;
    if (file->GetSize(fileSize) == OPAL_OK &&
        fileSize > static_cast<int64_t>(opal::kMaxManifestSize)) {
        LOG4CXX_ERROR(m_logger, "SMIL file too large: '" << location << "' size: " << fileSize);
        return OPAL_ERROR_GENERAL;
    }
    result = file->RequestRange(0, -1, nullptr);
    if (result != OPAL_OK) {
        LOG4CXX_ERROR(m_logger, "HTTP error requesting SMIL file: '"
                                    << location << "' httpfile error: '" << int{result} << "'");
        return result;
    }
    HTTPRequest request;
    result = file->GetCompletedRequest(request, false);
    if (result != OPAL_OK) {
        LOG4CXX_ERROR(m_logger, "HTTP error CheckRequest SMIL file: '"
                                    << location << "' httpfile error: '" << int{result} << "'");
        return result;
    }
    const qutl::MemoryBuffer<unsigned char>& body = *request.GetData();
    qutl::MemoryBuffer<char> text;
    text.Assign(reinterpret_cast<const char*>(body.GetData()), body.GetSize(), 1, true);
    if (text.IsEmpty())
        return OPAL_ERROR_NO_MEMORY;
    m_isLocal = IsLocal(location);
    ISMILParser& parser = *this;
    result = parser.ParseSMILData(text.GetData(), text.GetSize());
    if (result != OPAL_OK) {
        LOG4CXX_ERROR(m_logger,
                      "ParseSMILData error: '" << location << "' size: " << body.GetSize());
    }
    return result;
}

/// Who serves a manifest has no say in which of the television's own files are read.
bool SMILParser::NamesLocalMedia() const {
    return HasLocal(m_videoLevels) || HasLocal(m_videoTrickTracks) || HasLocal(m_audioTracks) ||
           HasLocal(m_subtitleTracks);
}

OPALError SMILParser::ParseSMILData(const char* data, size_t size) {
    if (!data || size == 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (std::strlen(data) > opal::kMaxManifestSize) {
        LOG4CXX_ERROR(m_logger, "Error in XML parsing: larger than any manifest");
        return OPAL_ERROR_GENERAL;
    }
    const std::string text(data);
    const opal::ScannedManifest scanned = opal::ScanManifest(text);
    LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewTraceLogEvent(text));
    if (!opal::IsWithinBounds(scanned.extent)) {
        LOG4CXX_ERROR(m_logger,
                      "Error in XML parsing: more elements, or deeper, than any manifest");
        return OPAL_ERROR_GENERAL;
    }
    if (scanned.broken || !opal::ParseXml(m_document, scanned.rewritten)) {
        LOG4CXX_ERROR(m_logger, "Error in XML parsing: "
                                    << (scanned.broken ? "broken element, attribute or reference"
                                                       : m_document.ErrorDesc()));
        LOG4CXX_ERROR(m_logger, "xml data: '" << text << "'");
        return OPAL_ERROR_GENERAL;
    }
    const OPALError result = ParseSMIL();
    if (result == OPAL_OK && !m_isLocal && NamesLocalMedia()) {
        LOG4CXX_ERROR(m_logger, "A manifest from the network names local media");
        return OPAL_ERROR_GENERAL;
    }
    return result;
}

OPALError SMILParser::ParseSMIL() {
    // Trick and subtitle tracks are not emptied, deliberately; nothing parses twice.
    m_videoLevels.clear();
    m_audioTracks.clear();
    TiXmlHandle smil(nullptr), body(nullptr), par(nullptr);
    if (!GetIntoElemBlock(TiXmlHandle(&m_document), smil, "smil")) {
        LOG4CXX_ERROR(m_logger, "ParseSMIL error in GetIntoElemBlock ELEM_SMIL");
        return OPAL_ERROR_GENERAL;
    }
    if (!GetIntoElemBlock(smil, body, "body")) {
        LOG4CXX_ERROR(m_logger, "ParseSMIL error in GetIntoElemBlock ELEM_BODY");
        return OPAL_ERROR_GENERAL;
    }
    if (!GetIntoElemBlock(body, par, "par")) {
        LOG4CXX_ERROR(m_logger, "ParseSMIL error in GetIntoElemBlock ELEM_PAR");
        return OPAL_ERROR_GENERAL;
    }
    // A walk that stopped early is a success, deliberately: what was stored before stays.
    if (WalkPar(par) == Walk::Failed)
        return OPAL_ERROR_GENERAL;
    // Levels of the same bitrate keep the document's order, here and in everything that sorts them.
    std::stable_sort(m_videoLevels.begin(), m_videoLevels.end(), [](const auto& a, const auto& b) {
        return a->GetBitrate() < b->GetBitrate();
    });
    return OPAL_OK;
}

bool SMILParser::GetIntoElemBlock(const TiXmlHandle& parent, TiXmlHandle& element,
                                  const std::string& name) {
    element = parent.FirstChildElement(name);
    return element.ToElement() != nullptr;
}

SMILParser::Walk SMILParser::WalkPar(const TiXmlHandle& par) {
    Walk walk = Walk::GoOn;
    for (const TiXmlElement* child = par.ToElement()->FirstChildElement();
         child && walk == Walk::GoOn; child = child->NextSiblingElement())
        walk = child->ValueStr() == "excl" ? WalkExcl(*child) : StoreEntry(*child);
    return walk;
}

SMILParser::Walk SMILParser::WalkExcl(const TiXmlElement& excl) {
    Walk walk = Walk::GoOn;
    for (const TiXmlElement* child = excl.FirstChildElement(); child && walk == Walk::GoOn;
         child = child->NextSiblingElement())
        walk = StoreEntry(*child);
    return walk;
}

SMILParser::Walk SMILParser::WalkSwitch(const TiXmlElement& element) {
    Walk walk = Walk::GoOn;
    for (const TiXmlElement* child = element.FirstChildElement(); child && walk == Walk::GoOn;
         child = child->NextSiblingElement()) {
        if (child->ValueStr() != "video")
            return Walk::Stop;
        walk = IsTrickTrack(*child) ? StoreVideoTrickTrack(*child) : StoreVideoLevel(*child);
    }
    return walk;
}

SMILParser::Walk SMILParser::StoreEntry(const TiXmlElement& element) {
    const std::string& name = element.ValueStr();
    if (name == "switch")
        return WalkSwitch(element);
    if (name == "video")
        return StoreVideoLevel(element);
    if (name == "audio")
        return StoreAudioTrack(element);
    if (name == "textstream")
        return StoreSubtitleTrack(element);
    return Walk::GoOn;
}

SMILParser::Walk SMILParser::StoreVideoLevel(const TiXmlElement& element) {
    VideoAttributes a;
    if (!ReadVideoAttributes(element, "video", a))
        return Walk::Failed;
    const auto level = boost::make_shared<VideoLevelImpl>(a.uri, a.headerRequestSize, a.vbvSize,
                                                          a.bitrate, a.width, a.height);
    (void)ForEachParam(
        element, [&](const auto& name, const auto& value) { (void)level->AddParam(name, value); });
    m_videoLevels.push_back(level);
    return Walk::GoOn;
}

SMILParser::Walk SMILParser::StoreVideoTrickTrack(const TiXmlElement& element) {
    VideoAttributes a;
    if (!ReadVideoAttributes(element, "video trick", a))
        return Walk::Failed;
    const auto track = boost::make_shared<VideoTrickTrackImpl>(
        a.uri, a.headerRequestSize, a.vbvSize, a.bitrate, a.width, a.height);
    (void)ForEachParam(
        element, [&](const auto& name, const auto& value) { (void)track->AddParam(name, value); });
    m_videoTrickTracks.push_back(track);
    return Walk::GoOn;
}

SMILParser::Walk SMILParser::StoreAudioTrack(const TiXmlElement& element) {
    TrackAttributes a;
    const char* uri = element.Attribute("src");
    const char* language = element.Attribute("xml:lang");
    a.uri = uri ? uri : "";
    a.language = language ? language : "";
    if (!ReadTrackAttributes(element, a))
        return Walk::Failed;
    const auto track = boost::make_shared<AudioTrackImpl>(a.uri, a.language, a.headerRequestSize,
                                                          a.reservedBandwidth, a.assetId);
    (void)ForEachParam(
        element, [&](const auto& name, const auto& value) { (void)track->AddParam(name, value); });
    m_audioTracks.push_back(track);
    return Walk::GoOn;
}

SMILParser::Walk SMILParser::StoreSubtitleTrack(const TiXmlElement& element) {
    TrackAttributes a;
    if (!ReadRequired(element, "src", a.uri) || !ReadRequired(element, "xml:lang", a.language) ||
        !ReadTrackAttributes(element, a))
        return Walk::Failed;
    const auto track = boost::make_shared<SubtitleTrackImpl>(a.uri, a.language, a.headerRequestSize,
                                                             a.reservedBandwidth, a.assetId);
    (void)ForEachParam(
        element, [&](const auto& name, const auto& value) { (void)track->AddParam(name, value); });
    m_subtitleTracks.push_back(track);
    return Walk::GoOn;
}

bool SMILParser::ReadVideoAttributes(const TiXmlElement& element, const std::string& kind,
                                     VideoAttributes& attributes) const {
    if (!ReadRequired(element, "src", attributes.uri))
        return false;
    attributes.bitrate = ReadInteger(element, "systemBitrate");
    attributes.width = ReadInteger(element, "width");
    attributes.height = ReadInteger(element, "height");
    return ForEachParam(element, [&](const std::string& name, const std::string& value) {
        if (name == "header-request") {
            if (!Convert(value, attributes.headerRequestSize, kind + " Header Request size",
                         "size_t--setting to zero"))
                attributes.headerRequestSize = 0;
        } else if (name == "vbv") {
            // Deliberately the bitrate, whatever the message says: such a level sorts first.
            if (!Convert(value, attributes.vbvSize, kind + " vbv size", "size_t--setting to zero"))
                attributes.bitrate = 0;
        }
    });
}

bool SMILParser::ReadTrackAttributes(const TiXmlElement& element,
                                     TrackAttributes& attributes) const {
    // Subtitle tracks say "audio" too, deliberately.
    const bool complete =
        ForEachParam(element, [&](const std::string& name, const std::string& value) {
            if (name == "header-request") {
                if (!Convert(value, attributes.headerRequestSize, "audio Header Request size",
                             "size_t--setting to zero"))
                    attributes.headerRequestSize = 0;
            } else if (name == "reservedBandwidth") {
                if (!Convert(value, attributes.reservedBandwidth, "audio reservedBandwidth size",
                             "int--setting to zero"))
                    attributes.reservedBandwidth = 0;
            } else if (name == "assetId") {
                // Zero, deliberately, whatever the message says.
                if (!Convert(value, attributes.assetId, "audio assetId", "int--setting to -1"))
                    attributes.assetId = 0;
            }
        });
    if (complete && attributes.language.size() != kLanguageLength) {
        LOG4CXX_ERROR(m_logger, "Invalid language detected '" << attributes.language
                                                              << "'--setting to undefined \"und\"");
        attributes.language = "und";
    }
    return complete;
}

bool SMILParser::ReadRequired(const TiXmlElement& element, const char* name,
                              std::string& value) const {
    const char* text = element.Attribute(name);
    if (!text) {
        LOG4CXX_ERROR(m_logger,
                      "Missing attribute '" << name << "' of '" << element.ValueStr() << "'");
        return false;
    }
    value = text;
    return true;
}

template <typename Handle>
bool SMILParser::ForEachParam(const TiXmlElement& element, Handle handle) const {
    for (const TiXmlElement* param = element.FirstChildElement("param"); param;
         param = param->NextSiblingElement("param")) {
        std::string name, value;
        if (!ReadRequired(*param, "name", name) || !ReadRequired(*param, "value", value))
            return false;
        handle(name, value);
    }
    return true;
}

template <typename Number>
bool SMILParser::Convert(const std::string& text, Number& number, const std::string& message,
                         const std::string& consequence) const {
    Number converted = 0;
    if (boost::conversion::try_lexical_convert(text, converted)) {
        number = converted;
        return true;
    }
    LOG4CXX_ERROR(m_logger, "Could not convert invalid " << message << " '" << text << "' to "
                                                         << consequence);
    return false;
}

OPALError SMILParser::GetVideoLevel(size_t index, boost::shared_ptr<IVideoLevel>& level) const {
    return GetFromList(m_videoLevels, index, level);
}

OPALError SMILParser::GetVideoTrickTrack(size_t index,
                                         boost::shared_ptr<IVideoTrickTrack>& track) const {
    return GetFromList(m_videoTrickTracks, index, track);
}

OPALError SMILParser::GetAudioTrack(size_t index, boost::shared_ptr<IAudioTrack>& track) const {
    return GetFromList(m_audioTracks, index, track);
}

OPALError SMILParser::GetSubtitleTrack(size_t index,
                                       boost::shared_ptr<ISubtitleTrack>& track) const {
    return GetFromList(m_subtitleTracks, index, track);
}

ISMILParser* NewSMILParser() {
    return new (std::nothrow) SMILParser;
}
