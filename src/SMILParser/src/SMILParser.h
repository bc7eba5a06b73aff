#pragma once

#include <log4cxx/logger.h>
#include <tinyxml.h>

#include <string>
#include <vector>

#include "SMILParser/ISMILParser.h"

/// Walks the manifest with TinyXML. Only the element and attribute names that it knows are looked
/// at, compared as exact strings; everything else is ignored. One parser, one parse.
class SMILParser : public ISMILParser {
  public:
    SMILParser();

    OPALError ParseSMILFile(const std::string& location) override;
    OPALError ParseSMILData(const char* data, size_t size) override;
    size_t GetVideoLevelCount() const override { return m_videoLevels.size(); }
    OPALError GetVideoLevel(size_t index, boost::shared_ptr<IVideoLevel>& level) const override;
    size_t GetVideoTrickTrackCount() const override { return m_videoTrickTracks.size(); }
    OPALError GetVideoTrickTrack(size_t index,
                                 boost::shared_ptr<IVideoTrickTrack>& track) const override;
    size_t GetAudioTrackCount() const override { return m_audioTracks.size(); }
    OPALError GetAudioTrack(size_t index, boost::shared_ptr<IAudioTrack>& track) const override;
    size_t GetSubtitleTrackCount() const override { return m_subtitleTracks.size(); }
    OPALError GetSubtitleTrack(size_t index,
                               boost::shared_ptr<ISubtitleTrack>& track) const override;
    void SetStopSignal(const opal::StopSignal* signal) override { m_pStop = signal; }

  private:
    /// How a walk goes on behind an element.
    enum class Walk {
        GoOn,
        Stop,   ///< quietly: what follows is not read
        Failed  ///< an element lacks what it must have
    };
    struct VideoAttributes;
    struct TrackAttributes;

    OPALError ParseSMIL();
    bool NamesLocalMedia() const;
    Walk WalkPar(const TiXmlHandle& par);
    Walk WalkExcl(const TiXmlElement& excl);
    Walk WalkSwitch(const TiXmlElement& element);
    Walk StoreEntry(const TiXmlElement& element);
    Walk StoreVideoLevel(const TiXmlElement& element);
    Walk StoreVideoTrickTrack(const TiXmlElement& element);
    Walk StoreAudioTrack(const TiXmlElement& element);
    Walk StoreSubtitleTrack(const TiXmlElement& element);
    bool ReadVideoAttributes(const TiXmlElement& element, const std::string& kind,
                             VideoAttributes& attributes) const;
    bool ReadTrackAttributes(const TiXmlElement& element, TrackAttributes& attributes) const;
    /// The text of an attribute that must be there; logs if it is not.
    bool ReadRequired(const TiXmlElement& element, const char* name, std::string& value) const;
    /// Calls `handle(name, value)` for each "param"; false if one lacks its name or value.
    template <typename Handle>
    bool ForEachParam(const TiXmlElement& element, Handle handle) const;
    template <typename Number>
    bool Convert(const std::string& text, Number& number, const std::string& message,
                 const std::string& consequence) const;
    static bool GetIntoElemBlock(const TiXmlHandle& parent, TiXmlHandle& element,
                                 const std::string& name);

    const opal::StopSignal* m_pStop = nullptr;
    log4cxx::LoggerPtr m_logger;
    bool m_isLocal = false;  ///< the manifest was read from a local file
    TiXmlDocument m_document;
    std::vector<boost::shared_ptr<IVideoLevel>> m_videoLevels;
    std::vector<boost::shared_ptr<IVideoTrickTrack>> m_videoTrickTracks;
    std::vector<boost::shared_ptr<IAudioTrack>> m_audioTracks;
    std::vector<boost::shared_ptr<ISubtitleTrack>> m_subtitleTracks;
};
