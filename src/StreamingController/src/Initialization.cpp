#include <algorithm>
#include <iostream>
#include <limits>
#include <memory>
#include <vector>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "Common/ObjectFactory.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/LoggingConfig.h"
#include "ContentSession/IProtectedContent.h"
#include "PlatformAdapter/Common/PlatformAudio.h"
#include "PlatformAdapter/Common/PlatformVideo.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingController/PlayReportConfig.h"
#include "StreamingController/src/CallbackScope.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

constexpr size_t kVideoBufferSize = 0xC00000;
constexpr size_t kAudioBufferSize = 384000;

qutl::MemoryBuffer<unsigned char> ToBuffer(const std::string& text) {
    qutl::MemoryBuffer<unsigned char> buffer;
    buffer.Assign(reinterpret_cast<const unsigned char*>(text.data()), text.size(), 0, false);
    return buffer;
}

}  // namespace

OPALError StreamingController::InitializeFromSMILFile(const std::string& url,
                                                      const std::string& country,
                                                      const std::string& language,
                                                      OPALWriterModel model) {
    return RunInitialization([&] { return BuildFromManifest(url, country, language, model); });
}

OPALError StreamingController::InitializeFromTIXString(const std::string& tixString,
                                                       const std::string& sessionData,
                                                       const std::string& country,
                                                       const std::string& language,
                                                       OPALWriterModel model) {
    return RunInitialization(
        [&] { return BuildFromTicket(tixString, sessionData, country, language, model); });
}

OPALError StreamingController::RunInitialization(const std::function<OPALError()>& build) {
    if (IsInCallback())
        return OPAL_ERROR_GENERAL;
    boost::lock_guard<boost::mutex> lifecycle(m_lifecycleMutex);
    EndPreviousSession();
    Lock lock(m_mutex);
    m_stop.Lower();
    if (m_finalizing != 0)  // whichever of the two comes last raises the signal
        m_stop.Raise();
    try {
        return build();
    } catch (const std::bad_alloc&) {
        return OPAL_ERROR_NO_MEMORY;
    } catch (const std::exception& e) {
        LOG4CXX_ERROR(logger, "Initialisation failed: " << e.what());
        return OPAL_ERROR_GENERAL;
    }
}

void StreamingController::BeginInitialization(const char* trace, int senderKind) {
    OPALVersion version;
    KMTGetVersion(&version);
    const std::string text = "KMT Version: " + std::to_string(version.major) + "." +
                             std::to_string(version.minor) + "." +
                             std::to_string(version.revision) + "." + std::to_string(version.build);
    LOG4CXX_INFO(logger, text);
    std::cout << text << std::endl;
    m_timeEnter = opal::Now();
    Trace(trace);
    Trace("Before Log Init : time=");
    ObjectFactory& factory = ObjectFactory::Instance();
    if (factory.GetLogEventSenderKind() != ObjectFactory::kArrangedSender)
        factory.SelectLogEventSender(senderKind, nullptr, nullptr);
    LoggingConfig file;
    LogEventSenderConfig config;
    if (file.Load() == OPAL_OK && file.Read(config) == OPAL_OK)
        factory.SelectLogEventSender(ObjectFactory::kUploadSender, &config, nullptr);
}

void StreamingController::CreateLogSender(const std::string& country, const std::string& language) {
    m_pLogSender.reset(ObjectFactory::Instance().NewLogEventSender());
    if (m_pLogSender)
        m_pLogSender->SetLocale(country, language);
}

OPALError StreamingController::BuildFromManifest(const std::string& url, const std::string& country,
                                                 const std::string& language,
                                                 OPALWriterModel model) {
    BeginInitialization("Enter StreamingController::InitializeFromSMILFile : time=",
                        ObjectFactory::kNullSender);
    (void)LoadAlgorithmConfigFile();
    CreateLogSender(country, language);
    LogServer::Instance().Start(m_pLogSender.get());
    Trace("After Log Init : time=");
    m_writerModel = model;
    std::unique_ptr<ISMILParser> parser(NewSMILParser());
    if (!parser)
        return OPAL_ERROR_NO_MEMORY;
    OPALError code = CreateSwitchingController();
    if (code == OPAL_OK)
        code = FetchManifest(*parser, url);
    if (code != OPAL_OK)
        return code;
    Publish(m_pSMILParser, parser.release());
    Trace("After InitFromUrl : time=");
    code = GiveLevelsToSwitching();
    if (code != OPAL_OK)
        return code;
    m_timeInitDone = opal::Now();
    m_sessionContent = false;
    return InitializeInternal("unknown", country, language, model);
}

OPALError StreamingController::BuildFromTicket(const std::string& tixString,
                                               const std::string& sessionData,
                                               const std::string& country,
                                               const std::string& language, OPALWriterModel model) {
    BeginInitialization("Enter StreamingController::InitializeFromTIXString : time=",
                        ObjectFactory::kUploadSender);
    CreateLogSender(country, language);
    if (!m_pProtectedContent)
        m_pProtectedContent.reset(ObjectFactory::Instance().NewProtectedContent());
    if (!m_pProtectedContent) {
        LOG4CXX_ERROR(logger, "This library has no content session: a ticket cannot be opened");
        return OPAL_ERROR_CONTENT_SESSION;
    }
    void* session = nullptr;
    if (m_pProtectedContent->Prepare(ToBuffer(sessionData), &session) == OPAL_OK && m_pLogSender) {
        m_pLogSender->SetContext(session);
        LogServer::Instance().Start(m_pLogSender.get());
    }
    Trace("After Log Init : time=");
    m_writerModel = model;
    std::unique_ptr<ISMILParser> parser(NewSMILParser());
    if (!parser)
        return OPAL_ERROR_NO_MEMORY;
    std::string assetId;
    OPALError code = OpenTicket(tixString, sessionData, country, language, assetId);
    if (code == OPAL_OK)
        code = CreateSwitchingController();
    std::string manifest;
    if (code == OPAL_OK)
        code = m_pProtectedContent->GetManifest(manifest);
    if (code == OPAL_OK)
        code = parser->ParseSMILData(manifest.c_str(), manifest.size());
    if (code != OPAL_OK)
        return code;
    Publish(m_pSMILParser, parser.release());
    Trace("Exiting StreamingController::InitializeFromTIXString : time=");
    code = GiveLevelsToSwitching();
    if (code != OPAL_OK)
        return code;
    m_timeInitDone = opal::Now();
    m_sessionContent = true;
    return InitializeInternal(assetId, country, language, model);
}

OPALError StreamingController::OpenTicket(const std::string& tixString,
                                          const std::string& sessionData,
                                          const std::string& country, const std::string& language,
                                          std::string& assetId) {
    Trace("Before m_pProtectedContent->Initialize : time=");
    OPALError code = m_pProtectedContent->Initialize(ToBuffer(sessionData), country, language);
    Trace("After m_pProtectedContent->Initialize : time=");
    if (code != OPAL_OK)
        return code;
    Trace("Before m_pProtectedContent->Open(tixString) : time=");
    code = m_pProtectedContent->Open(tixString, assetId);
    Trace("After m_pProtectedContent->Open(tixString) : time=");
    if (code != OPAL_OK) {
        TellContentError(code);
        return code;
    }
    Trace("Before GetStreamingAlgorithmConfig() : time=");
    if (!LoadAlgorithmConfigFile())
        code = LoadServiceAlgorithmConfig();
    Trace("After GetStreamingAlgorithmConfig() : time=");
    return code;
}

bool StreamingController::LoadAlgorithmConfigFile() {
    try {
        return LoadConfigFile();
    } catch (const std::exception& e) {
        LOG4CXX_ERROR(logger, "kmt_ssa_config.xml is not used: " << e.what());
        return false;
    }
}

OPALError StreamingController::LoadServiceAlgorithmConfig() {
    AlgorithmConfig::Global global;
    AlgorithmConfig::Mode agile;
    AlgorithmConfig::Mode steady;
    const OPALError code = m_pProtectedContent->GetStreamingAlgorithmConfig(global, agile, steady);
    return code == OPAL_OK ? AlgorithmConfig::Instance().Set(global, agile, steady) : code;
}

OPALError StreamingController::FetchManifest(ISMILParser& parser, const std::string& url) {
    parser.SetStopSignal(&m_stop);
    return parser.ParseSMILFile(url);
}

OPALError StreamingController::CreateSwitchingController() {
    if (!m_pSwitching)
        m_pSwitching.reset(NewSwitchingController());
    return m_pSwitching ? OPAL_OK : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamingController::GiveLevelsToSwitching() {
    std::vector<boost::shared_ptr<IVideoLevel>> levels;
    for (size_t i = 0; i < m_pSMILParser->GetVideoLevelCount(); ++i) {
        boost::shared_ptr<IVideoLevel> level;
        if (m_pSMILParser->GetVideoLevel(i, level) == OPAL_OK)
            levels.push_back(level);
    }
    std::vector<boost::shared_ptr<IAudioTrack>> tracks;
    for (size_t i = 0; i < m_pSMILParser->GetAudioTrackCount(); ++i) {
        boost::shared_ptr<IAudioTrack> track;
        if (m_pSMILParser->GetAudioTrack(i, track) == OPAL_OK)
            tracks.push_back(track);
    }
    return m_pSwitching->SetLevels(levels, tracks);
}

OPALError StreamingController::InitializeInternal(const std::string& ticket,
                                                  const std::string& /*country*/,
                                                  const std::string& /*language*/,
                                                  OPALWriterModel model) {
    m_buffering.Reset();
    OPALError code = CreateRuntimeHandles();
    if (code == OPAL_OK)
        code = CreateBuffer(m_pVideoBuffer, kVideoBufferSize);
    if (code == OPAL_OK)
        code = CreateBuffer(m_pAudioBuffer, kAudioBufferSize);
    if (code != OPAL_OK)
        return code;
    size_t level = 0;
    InitialBandwidthMode mode = InitialBandwidthMode_LowestLevel;
    int64_t startupMs = 0;
    DetermineStartupProperties(level, mode, startupMs);
    code = OpenVideo(level);
    if (code != OPAL_OK)
        return code;
    m_pSwitching->SetClusterIndexes(&m_pReaders->GetVideoClusterIndexes());
    ReportLevelChange(0, level);
    code = CreateVideoSink(level);
    if (code == OPAL_OK && m_sessionContent)
        code = SetupContentStream();
    if (code == OPAL_OK)
        code = CreateVideoWriter(model);
    if (code == OPAL_OK)
        code = m_pReaders->GetVideoDuration(m_duration);
    if (code == OPAL_OK && m_finalizing != 0)
        code = OPAL_ERROR_TERMINATED;
    if (code != OPAL_OK)
        return code;
    m_terminated = false;
    m_error = OPAL_OK;
    m_writersPaused = true;
    StartLoop();  // waits for this lock
    m_initialized = true;
    LogEventFactory& events = LogEventFactory::Instance();
    LogServer::Instance().PostOrDestroy(
        events.NewAlgorithmConfigLogEvent(&AlgorithmConfig::Instance()));
    OPALVersion version;
    KMTGetVersion(&version);
    LogServer::Instance().PostOrDestroy(events.NewInitLogEvent(version.major, version.minor,
                                                               version.revision, version.build,
                                                               ticket, mode, startupMs / 1000));
    Trace("Initialize Complete : time=");
    return OPAL_OK;
}

void StreamingController::StartLoop() {
    m_thread = boost::thread([this] { (void)EventLoop(); });
}

OPALError StreamingController::CreateRuntimeHandles() {
    HHABARCH hArch = nullptr;
    if (HABArch_New(&hArch) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    {
        boost::unique_lock<boost::shared_mutex> lock(m_objectsMutex);
        m_hArch = hArch;
        HABArch_SetStopSignal(m_hArch, &m_stop);
    }
    if (HABTimer_New(&m_hTimer, m_hArch, kSessionTimerKind) != HAB_OK ||
        HABTimer_Start(m_hTimer) != HAB_OK || HABTimer_SetTime(m_hTimer, 0) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return OPAL_OK;
}

OPALError StreamingController::CreateBuffer(boost::scoped_ptr<IClusterBuffer>& buffer,
                                            size_t capacity) {
    if (!buffer)
        Publish(buffer, NewClusterBuffer(capacity));
    return buffer ? OPAL_OK : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamingController::OpenVideo(size_t level) {
    auto* readerNotify = new ReaderNotify;
    m_pReaderNotify.reset(readerNotify);
    readerNotify->controller = this;
    Publish(m_pReaders, NewReaders());
    if (!m_pReaders)
        return OPAL_ERROR_NO_MEMORY;
    Trace("Before m_pReaders->VideoInitialize : time=");
    const OPALError code = m_pReaders->VideoInitialize(m_pSMILParser.get(), m_pVideoBuffer.get(),
                                                       m_pReaderNotify.get(), level);
    Trace("After m_pReaders->VideoInitialize : time=");
    if (code != OPAL_OK)
        return code;
    if (m_pReaders->GetVideoStreamCount() == 0 || m_pSMILParser->GetVideoLevelCount() == 0) {
        LOG4CXX_ERROR(logger, "No video detected, OPAL needs video badly (it's required)");
        return OPAL_ERROR_GENERAL;
    }
    return OPAL_OK;
}

// The sink is told the largest picture of the manifest, so that no level change resizes it.
OPALError StreamingController::CreateVideoSink(size_t level) {
    boost::shared_ptr<IVideoLevel> largest;
    OPALError code = m_pSMILParser->GetVideoLevel(m_pSMILParser->GetVideoLevelCount() - 1, largest);
    if (code != OPAL_OK)
        return code;
    boost::shared_ptr<IVideoLevel> first;
    code = m_pSMILParser->GetVideoLevel(level, first);
    if (code != OPAL_OK)
        return code;
    const opal::VideoSink sink = NewVideoSink(m_hArch, m_hTimer);
    Publish(m_pVideoPlatform, sink.platform);
    if (!m_pVideoPlatform)
        return OPAL_ERROR_NO_MEMORY;
    code = m_pVideoPlatform->Initialize();
    if (code != OPAL_OK)
        return code;
    const void* header = nullptr;
    size_t headerSize = 0;
    code = AdaptVideoHeader(nullptr, 0, header, headerSize);
    if (code != OPAL_OK)
        return code;
    return sink.configure(VIDEOCODECID_AVC, largest->GetWidth(), largest->GetHeight(),
                          first->GetBitrate(), header, headerSize, true);
}

OPALError StreamingController::SetupContentStream() {
    int64_t intervalMs = 0;
    OPALError code = m_pProtectedContent->SetupStream();
    if (code == OPAL_OK)
        code = m_pProtectedContent->GetPulseConfiguration(intervalMs);
    if (code != OPAL_OK) {
        TellContentError(code);
        return code;
    }
    PlayReportConfig::Instance().Set(intervalMs);
    return OPAL_OK;
}

OPALError StreamingController::CreateVideoWriter(OPALWriterModel model) {
    Publish(m_pVideoWriter, NewStreamingWriter(m_pVideoBuffer.get(), m_pVideoPlatform.get(),
                                               OPAL_STREAM_VIDEO, model));
    return m_pVideoWriter ? m_pVideoWriter->Initialize() : OPAL_ERROR_NO_MEMORY;
}

// The switching controller is asked for its level exactly once: its first decision counts as the
// one it starts from, and the next question would be answered as a later one.
void StreamingController::DetermineStartupProperties(size_t& level, InitialBandwidthMode& mode,
                                                     int64_t& startupMs) {
    mode = m_pSwitching->GetInitialBandwidthMode();
    if (mode == InitialBandwidthMode_BandwidthProbe) {
        if (!ProbeBandwidth()) {
            level = 0;
            Trace("Probe failed using level 0");
            return;
        }
        startupMs = std::max<int64_t>(0, opal::ToMilliseconds(opal::Now() - m_timeEnter));
        m_pSwitching->SetStartupTime(startupMs);
        level = LevelFromSwitching();
        // One below what the probe justified, deliberately.
        if (level > 0)
            --level;
        LOG4CXX_TRACE(logger, "Video level after probe = " << level);
        return;
    }
    if (mode == InitialBandwidthMode_BandwidthHint) {
        const int hint = AlgorithmConfig::Instance().GetBandwidthHint();
        startupMs = std::max<int64_t>(0, opal::ToMilliseconds(opal::Now() - m_timeEnter));
        m_pSwitching->SetStartupTime(startupMs);
        m_pSwitching->SetBandwidth(hint);
    }
    level = LevelFromSwitching();
    LOG4CXX_TRACE(logger, "No probe using level = " << level);
}

bool StreamingController::ProbeBandwidth() {
    boost::shared_ptr<IVideoLevel> lowest;
    if (m_pSMILParser->GetVideoLevel(0, lowest) != OPAL_OK || lowest->GetURI().empty())
        return false;
    m_probeNotify.controller = this;
    size_t initSize = 0;
    int64_t duration = 0;
    std::string uri;
    GetProbeProperties(initSize, duration, uri);
    if (!m_pProbe)
        Publish(m_pProbe, new BandwidthProbe(&m_probeNotify, static_cast<int64_t>(initSize),
                                             duration, &m_stop));
    Trace("Starting Bandwidth Probe : time=");
    const OPALError code = m_pProbe->Probe(uri);
    Trace("Finished Bandwidth Probe : time=");
    m_probeNotify.controller = nullptr;
    return code == OPAL_OK;
}

void StreamingController::GetProbeProperties(size_t& initSize, int64_t& duration,
                                             std::string& uri) {
    const StreamingTuning& tuning = StreamingTuning::Instance();
    duration = tuning.GetProbeDuration();
    boost::shared_ptr<IVideoLevel> lowest;
    if (m_pSMILParser->GetVideoLevel(0, lowest) == OPAL_OK)
        uri = lowest->GetURI();
    initSize = tuning.GetProbeInitialSize();
    OPAL_ASSERT(!uri.empty(), "!uri.empty()");
    OPAL_ASSERT(initSize > 0, "initSize > 0");
}

void StreamingController::ProbeNotify::OnProbe(int /*kind*/, int64_t size, int64_t duration) {
    if (controller)
        controller->OnProbeResult(size, duration);
}

void StreamingController::OnProbeResult(int64_t size, int64_t duration) {
    const auto bytes = static_cast<double>(std::max<int64_t>(0, size));
    const auto ms = static_cast<double>(std::max<int64_t>(0, duration));
    const double bandwidth = ms > 0 ? bytes * 8000.0 / ms : 0.0;
    // A fast link may measure more than an int holds.
    constexpr int kMost = std::numeric_limits<int>::max();
    m_pSwitching->SetBandwidth(bandwidth < kMost ? static_cast<int>(bandwidth) : kMost);
}

// What the switching controller wants, brought into the levels that there are: none known is the
// lowest, above all of them the highest. Trick tracks lie behind the levels and are no levels.
size_t StreamingController::LevelFromSwitching() {
    const int wanted = m_pSwitching->GetCurrentLevel();
    const size_t count = m_pSMILParser->GetVideoLevelCount();
    if (wanted < 0 || count == 0)
        return 0;
    return std::min(static_cast<size_t>(wanted), count - 1);
}

IClusterBuffer* StreamingController::NewClusterBuffer(size_t capacity) {
    return ::NewClusterBuffer(capacity);
}

Readers* StreamingController::NewReaders() {
    return new Readers(&m_stop);
}

IStreamSwitchingController* StreamingController::NewSwitchingController() {
    return NewStreamSwitchingController();
}

opal::VideoSink StreamingController::NewVideoSink(HHABARCH hArch, HHABTIMER hTimer) {
    auto* sink = new PlatformVideo(hArch, hTimer);
    opal::VideoSink result;
    result.platform = sink;
    result.configure = [sink](const std::string& codec, int width, int height, int64_t bitrate,
                              const void* header, size_t size, bool first) {
        return sink->Configure(codec, width, height, bitrate, header, size, first);
    };
    return result;
}

opal::AudioSink StreamingController::NewAudioSink(HHABARCH hArch, HHABTIMER hTimer) {
    auto* sink = new PlatformAudio(hArch, hTimer);
    opal::AudioSink result;
    result.platform = sink;
    result.configure = [sink](const std::string& codec, uint32_t rate, uint32_t channels,
                              const uint8_t* header, size_t size, bool first) {
        return sink->Configure(codec, rate, channels, header, size, first);
    };
    return result;
}

// This platform adapter has no subtitle sink.
opal::SubtitleSink StreamingController::NewSubtitleSink(HHABARCH, HHABTIMER) {
    return {};
}
