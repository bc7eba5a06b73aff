#include <iostream>
#include <memory>
#include <vector>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "Common/ObjectFactory.h"
#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/LoggingConfig.h"
#include "ContentSession/IProtectedContent.h"
#include "PlatformAdapter/Common/ISinks.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

ILogEventSender* NewLogSender(const std::string& country, const std::string& language,
                              const opal::StopSignal* stop) {
    ILogEventSender* sender = ObjectFactory::Instance().NewLogEventSender();
    if (sender) {
        sender->SetLocale(country, language);
        sender->SetStopSignal(stop);
    }
    return sender;
}

bool LoadAlgorithmConfigFile(const log4cxx::LoggerPtr& logger) {
    try {
        return LoadConfigFile();
    } catch (const std::exception& e) {
        LOG4CXX_ERROR(logger, "kmt_ssa_config.xml is not used: " << e.what());
        return false;
    }
}

/// A service's call that ends because of the signal is no error to tell. A refusal that arrives in
/// the same moment is one.
bool EndedBySignal(const opal::StopSignal& stop, OPALError code) {
    return stop.IsRaised() && code == OPAL_ERROR_SERVICE_27;
}

OPALError GiveLevelsTo(IStreamSwitchingController& switching, const ISMILParser& manifest) {
    std::vector<boost::shared_ptr<IVideoLevel>> levels;
    for (size_t i = 0; i < manifest.GetVideoLevelCount(); ++i) {
        boost::shared_ptr<IVideoLevel> level;
        if (manifest.GetVideoLevel(i, level) == OPAL_OK)
            levels.push_back(level);
    }
    std::vector<boost::shared_ptr<IAudioTrack>> tracks;
    for (size_t i = 0; i < manifest.GetAudioTrackCount(); ++i) {
        boost::shared_ptr<IAudioTrack> track;
        if (manifest.GetAudioTrack(i, track) == OPAL_OK)
            tracks.push_back(track);
    }
    return switching.SetLevels(levels, tracks);
}

}  // namespace

OPALError StreamingController::InitializeFromSMILFile(const std::string& url,
                                                      const std::string& country,
                                                      const std::string& language,
                                                      OPALWriterModel model) {
    return opal::NoThrow([&] {
        return RunInitialization([&] {
            m_mutex.AssertHeld();
            return BuildFromManifest(url, country, language, model);
        });
    });
}

OPALError StreamingController::InitializeFromTIXString(const std::string& tixString,
                                                       const std::string& sessionData,
                                                       const std::string& country,
                                                       const std::string& language,
                                                       OPALWriterModel model) {
    return opal::NoThrow([&] {
        return RunInitialization([&] {
            m_mutex.AssertHeld();
            return BuildFromTicket(tixString, sessionData, country, language, model);
        });
    });
}

OPALError StreamingController::RunInitialization(const std::function<OPALError()>& build) {
    return opal::NoThrow([&] {
        if (m_session->reports.IsCalling())
            return OPAL_ERROR_GENERAL;
        opal::MutexLock lifecycle(m_lifecycleMutex);
        EndPreviousSession();
        opal::RecursiveLock lock(m_mutex);
        m_stop.Lower();
        m_session->lastStop.Lower();
        m_session->logStop.Lower();
        if (m_session->finalizing != 0)  // whichever of the two comes last raises the signal
            m_stop.Raise();
        try {
            if (!m_pSwitching)
                m_pSwitching.reset(NewSwitchingController());
            const OPALError code = m_pSwitching ? build() : OPAL_ERROR_NO_MEMORY;
            if (code != OPAL_OK && !m_stop.IsRaised())
                m_session->reports.ObserveFailure(code);
            return code;
        } catch (const std::exception& e) {
            LOG4CXX_ERROR(logger, "Initialisation failed: " << e.what());
            m_session->reports.ObserveFailure(OPAL_ERROR_GENERAL);
            throw;
        }
    });
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

OPALError StreamingController::BuildFromManifest(const std::string& url, const std::string& country,
                                                 const std::string& language,
                                                 OPALWriterModel model) {
    opal::SessionEventStream::IfObserved([&] {
        opal::StateEvent opening;
        opening.text = url;
        m_session->reports.Observe(std::move(opening));
    });
    BeginInitialization("Enter StreamingController::InitializeFromSMILFile : time=",
                        ObjectFactory::kNullSender);
    (void)LoadAlgorithmConfigFile(logger);
    m_pLogSender.reset(NewLogSender(country, language, &m_session->logStop));
    LogServer::Instance().Start(m_pLogSender.get());
    Trace("After Log Init : time=");
    std::unique_ptr<ISMILParser> parser(NewSMILParser());
    if (!parser)
        return OPAL_ERROR_NO_MEMORY;
    parser->SetStopSignal(&m_stop);
    OPALError code = parser->ParseSMILFile(url);
    if (code != OPAL_OK)
        return code;
    m_session->objects.Publish(m_pSMILParser, parser.release());
    Trace("After InitFromUrl : time=");
    code = GiveLevelsTo(*m_pSwitching, *m_pSMILParser);
    if (code != OPAL_OK)
        return code;
    m_timeInitDone = opal::Now();
    m_sessionContent = false;
    return InitializeInternal("unknown", model);
}

OPALError StreamingController::BuildFromTicket(const std::string& tixString,
                                               const std::string& sessionData,
                                               const std::string& country,
                                               const std::string& language, OPALWriterModel model) {
    m_session->reports.Observe(opal::SessionState::Opening);  // the ticket is nobody's business
    BeginInitialization("Enter StreamingController::InitializeFromTIXString : time=",
                        ObjectFactory::kUploadSender);
    m_pLogSender.reset(NewLogSender(country, language, &m_session->logStop));
    if (!m_pProtectedContent)
        m_pProtectedContent.reset(ObjectFactory::Instance().NewProtectedContent());
    if (!m_pProtectedContent) {
        LOG4CXX_ERROR(logger, "This library has no content session: a ticket cannot be opened");
        return OPAL_ERROR_CONTENT_SESSION;
    }
    opal::TicketSession& ticket = m_session->ticket;
    m_pProtectedContent->SetStopSignal(&m_stop);
    void* session = nullptr;
    if (ticket.Prepare(sessionData, &session) == OPAL_OK && m_pLogSender) {
        m_pLogSender->SetContext(session);
        LogServer::Instance().Start(m_pLogSender.get());
    }
    Trace("After Log Init : time=");
    std::unique_ptr<ISMILParser> parser(NewSMILParser());
    if (!parser)
        return OPAL_ERROR_NO_MEMORY;
    std::string assetId;
    bool opened = false;
    OPALError code = ticket.Open(
        tixString, sessionData, country, language, [this](const char* text) { Trace(text); },
        assetId, opened);
    if (code != OPAL_OK) {
        if (opened && !EndedBySignal(m_stop, code))
            m_session->reports.ContentError(code, ticket.ErrorText(code));
        return code;
    }
    Trace("Before GetStreamingAlgorithmConfig() : time=");
    if (!LoadAlgorithmConfigFile(logger))
        code = ticket.TakeAlgorithmSettings();
    Trace("After GetStreamingAlgorithmConfig() : time=");
    std::string manifest;
    if (code == OPAL_OK)
        code = m_pProtectedContent->GetManifest(manifest);
    if (code == OPAL_OK)
        code = parser->ParseSMILData(manifest.c_str(), manifest.size());
    if (code != OPAL_OK)
        return code;
    m_session->objects.Publish(m_pSMILParser, parser.release());
    Trace("Exiting StreamingController::InitializeFromTIXString : time=");
    code = GiveLevelsTo(*m_pSwitching, *m_pSMILParser);
    if (code != OPAL_OK)
        return code;
    m_timeInitDone = opal::Now();
    m_sessionContent = true;
    return InitializeInternal(assetId, model);
}

OPALError StreamingController::InitializeInternal(const std::string& ticket,
                                                  OPALWriterModel model) {
    m_writerModel = model;
    m_buffering.Reset();
    OPALError code = CreateRuntimeHandles();
    if (code == OPAL_OK && !m_pVideoBuffer)
        code = m_session->video.KeepBuffer(NewClusterBuffer(opal::playback::kVideoBufferBytes));
    if (code == OPAL_OK && !m_pAudioBuffer)
        code = m_session->audio.KeepBuffer(NewClusterBuffer(opal::playback::kAudioBufferBytes));
    if (code != OPAL_OK)
        return code;
    const opal::playback::StartDecision start = opal::playback::ChooseStart(
        *m_pSwitching, m_pSMILParser->GetVideoLevelCount(),
        [this] {
            m_mutex.AssertHeld();
            return ProbeBandwidth();
        },
        [this] { return opal::ToMilliseconds(opal::Now() - m_timeEnter); });
    if (start.probeFailed)
        Trace("Probe failed using level 0");
    else if (start.mode == InitialBandwidthMode_BandwidthProbe)
        LOG4CXX_TRACE(logger, "Video level after probe = " << start.level);
    else
        LOG4CXX_TRACE(logger, "No probe using level = " << start.level);
    code = OpenVideo(start.level);
    if (code != OPAL_OK)
        return code;
    m_pSwitching->SetClusterIndexes(&m_pReaders->GetVideoClusterIndexes());
    m_session->reports.LevelChange(*m_pSMILParser, 0, start.level,
                                   m_session->objects.ReportedBandwidth());
    code = CreateVideoSink(start.level);
    if (code == OPAL_OK && m_sessionContent) {
        code = m_session->ticket.SetupStream();
        if (code != OPAL_OK && !EndedBySignal(m_stop, code))
            m_session->reports.ContentError(code, m_session->ticket.ErrorText(code));
    }
    if (code == OPAL_OK)
        code = m_session->video.CreateWriter();
    if (code == OPAL_OK)
        code = m_pReaders->GetVideoDuration(m_duration);
    if (code == OPAL_OK && m_stop.IsRaised())
        code = OPAL_ERROR_TERMINATED;
    if (code != OPAL_OK)
        return code;
    m_terminated = false;
    m_error = OPAL_OK;
    m_writersPaused = true;
    if (m_sessionContent)
        m_session->ticket.StartReports(&m_session->lastStop);
    StartLoop();  // waits for this lock
    m_initialized = true;
    LogEventFactory& events = LogEventFactory::Instance();
    LogServer::Instance().PostOrDestroy(
        events.NewAlgorithmConfigLogEvent(&AlgorithmConfig::Instance()));
    OPALVersion version;
    KMTGetVersion(&version);
    LogServer::Instance().PostOrDestroy(
        events.NewInitLogEvent(version.major, version.minor, version.revision, version.build,
                               ticket, start.mode, start.startupMs / 1000));
    m_session->reports.Observe(opal::SessionState::Opened, m_duration, start.level);
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
    HABArch_SetStopSignal(hArch, &m_stop);
    {
        opal::ExclusiveLock lock(m_objectsMutex);
        m_hArch = hArch;
    }
    if (HABTimer_New(&m_hTimer, m_hArch, kSessionTimerKind) != HAB_OK ||
        HABTimer_Start(m_hTimer) != HAB_OK || HABTimer_SetTime(m_hTimer, 0) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return OPAL_OK;
}

OPALError StreamingController::OpenVideo(size_t level) {
    auto* readerNotify = new ReaderNotify;
    m_pReaderNotify.reset(readerNotify);
    readerNotify->controller = this;
    m_session->objects.Publish(m_pReaders, NewReaders());
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
    code = m_session->video.KeepSink(NewVideoSink(m_hArch, m_hTimer));
    if (code != OPAL_OK)
        return code;
    const void* header = nullptr;
    size_t headerSize = 0;
    code = AdaptVideoHeader(nullptr, 0, header, headerSize);
    if (code != OPAL_OK)
        return code;
    auto* sink = dynamic_cast<IVideoSink*>(m_pVideoPlatform.get());
    if (!sink)
        return OPAL_ERROR_NOT_READY;
    return sink->Configure(VIDEOCODECID_AVC, largest->GetWidth(), largest->GetHeight(),
                           first->GetBitrate(), header, headerSize, true);
}

// A failed probe is never an error of the start.
bool StreamingController::ProbeBandwidth() {
    boost::shared_ptr<IVideoLevel> lowest;
    if (m_pSMILParser->GetVideoLevel(0, lowest) != OPAL_OK || lowest->GetURI().empty())
        return false;
    m_probeNotify.controller = this;
    const StreamingTuning& tuning = StreamingTuning::Instance();
    const std::string uri = lowest->GetURI();
    const uint32_t initSize = tuning.GetProbeInitialSize();
    OPAL_ASSERT(!uri.empty(), "!uri.empty()");
    OPAL_ASSERT(initSize > 0, "initSize > 0");
    if (!m_pProbe)
        m_session->objects.Publish(m_pProbe,
                                   new BandwidthProbe(&m_probeNotify, int64_t{initSize},
                                                      tuning.GetProbeDuration(), &m_stop));
    Trace("Starting Bandwidth Probe : time=");
    const OPALError code = m_pProbe->Probe(uri);
    Trace("Finished Bandwidth Probe : time=");
    m_probeNotify.controller = nullptr;
    return code == OPAL_OK;
}

void StreamingController::ProbeNotify::OnProbe(int /*kind*/, int64_t size, int64_t duration) {
    if (controller)
        controller->m_pSwitching->SetBandwidth(opal::playback::ProbedBandwidth(size, duration));
}
