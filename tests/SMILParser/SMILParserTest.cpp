#include "SMILParser/src/SMILParser.h"

#include <gmock/gmock.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/spi/loggingevent.h>

#include <memory>

#include "Common/Clock.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/Logger.h"
#include "SMILParser/src/ManifestScan.h"
#include "support/FakeHTTPFile.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Keeps the messages at error level.
class ErrorCollector : public log4cxx::AppenderSkeleton {
  public:
    void close() override {}
    bool requiresLayout() const override { return false; }
    std::vector<std::string> messages;

  protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
        if (event->getLevel()->isGreaterOrEqual(log4cxx::Level::getError()))
            messages.push_back(event->getMessage());
    }
};

class SMILParserTest : public testing::Test {
  protected:
    SMILParserTest() {
        m_logger->setAdditivity(false);
        m_logger->addAppender(m_errors);
    }
    ~SMILParserTest() override { m_logger->removeAppender(m_errors); }

    OPALError Parse(const std::string& text) {
        m_parser.reset(NewSMILParser());
        m_errors->messages.clear();
        return m_parser->ParseSMILData(text.c_str(), text.size());
    }
    OPALError Fetch(const std::string& location) {
        m_parser.reset(NewSMILParser());
        m_errors->messages.clear();
        return m_parser->ParseSMILFile(location);
    }
    OPALError ParsePar(const std::string& content) {
        return Parse("<?xml version=\"1.0\"?>\n<smil xmlns='x'><head/><body><par>" + content +
                     "</par><par><video src='second'/></par></body></smil>");
    }
    /// "uri:bitrate" of the levels, in their order.
    std::vector<std::string> Levels() const {
        std::vector<std::string> levels;
        boost::shared_ptr<IVideoLevel> level;
        for (size_t i = 0; m_parser->GetVideoLevel(i, level) == OPAL_OK; ++i)
            levels.push_back(level->GetURI() + ":" + std::to_string(level->GetBitrate()));
        EXPECT_EQ(level, nullptr);
        EXPECT_EQ(levels.size(), m_parser->GetVideoLevelCount());
        return levels;
    }
    const std::vector<std::string>& Errors() const { return m_errors->messages; }

    log4cxx::LoggerPtr m_logger = getLogger("opal.SMILParser");
    std::shared_ptr<ErrorCollector> m_errors = std::make_shared<ErrorCollector>();
    std::unique_ptr<ISMILParser> m_parser{NewSMILParser()};
};

TEST_F(SMILParserTest, LevelsAreSortedAndKeepTheirOrderWhenEqual) {
    ASSERT_EQ(
        ParsePar("<!-- levels --><meta/>"
                 "<video src='a' systemBitrate='900000' width='1920' height='1080'>"
                 "<param name='mime' value='video/x'/><param name='header-request' value='77'/>"
                 "<param name='vbv' value='1800000'/><param name='vbv2' value='1'/>"
                 "<param name='vbv2' value='2'/><param name='' value='3'/></video>"
                 "<excl><video src='b' systemBitrate='300000kbit'/><excl><video/></excl>"
                 "<switch><video src='c' systemBitrate='600000'/></switch></excl>"
                 "<video src='d' systemBitrate='300000'/><video src='e'/>"),
        OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("e:0", "b:300000", "d:300000", "c:600000", "a:900000"));
    EXPECT_THAT(Errors(), IsEmpty());

    boost::shared_ptr<IVideoLevel> level;
    ASSERT_EQ(m_parser->GetVideoLevel(4, level), OPAL_OK);
    m_parser.reset(NewSMILParser());  // an entry outlives its parser
    EXPECT_EQ(level->GetWidth(), 1920);
    EXPECT_EQ(level->GetHeight(), 1080);
    EXPECT_EQ(level->GetVBVSize(), 1800000);
    EXPECT_EQ(level->GetHeaderRequestSize(), 77u);
    EXPECT_EQ(level->GetMimeType(), "video/x");
    std::string value = "old";
    EXPECT_TRUE(level->GetParam("vbv2", value));
    EXPECT_EQ(value, "2");
    EXPECT_FALSE(level->GetParam("", value));
    EXPECT_EQ(value, "");
}

TEST_F(SMILParserTest, TrickTracksAreMarkedWithinASwitch) {
    const std::string trick = " a='1' systemBaseProfile='TavoPlusTrickTrack' systemProfile='x'/>";
    ASSERT_EQ(ParsePar("<switch><video src='t1' systemBitrate='9'" + trick + "<video src='t2'" +
                       trick + "<video src='l1' systemProfile='tavoplustricktrack'/></switch>" +
                       "<video src='l2'" + trick),
              OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("l1:0", "l2:0"));
    ASSERT_EQ(m_parser->GetVideoTrickTrackCount(), 2u);
    boost::shared_ptr<IVideoTrickTrack> track;
    ASSERT_EQ(m_parser->GetVideoTrickTrack(0, track), OPAL_OK);
    EXPECT_EQ(track->GetURI(), "t1") << "never sorted";
    EXPECT_EQ(track->GetBitrate(), 9);
    EXPECT_EQ(track->GetMimeType(), "");
    EXPECT_EQ(m_parser->GetVideoTrickTrack(2, track), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(track, nullptr);
}

TEST_F(SMILParserTest, AnotherChildOfASwitchEndsTheWalkQuietly) {
    for (const char* wrap : {"", "excl"}) {
        const std::string open = *wrap ? "<excl>" : "", close = *wrap ? "</excl>" : "";
        ASSERT_EQ(ParsePar("<audio src='a' xml:lang='eng'/>" + open +
                           "<switch><video src='v'/><audio src='b'/><video src='w'/></switch>" +
                           close + "<video src='x'/>"),
                  OPAL_OK);
        EXPECT_THAT(Levels(), ElementsAre("v:0"));
        EXPECT_EQ(m_parser->GetAudioTrackCount(), 1u);
        EXPECT_THAT(Errors(), IsEmpty());
    }
}

TEST_F(SMILParserTest, AudioAndSubtitleTracks) {
    ASSERT_EQ(ParsePar("<audio src='a' xml:lang='xyz'><param name='header-request' value='500'/>"
                       "<param name='reservedBandwidth' value='-64000'/>"
                       "<param name='assetId' value='42'/></audio><audio/>"
                       "<textstream src='s' xml:lang='engl'><param name='mime' value='t'/>"
                       "</textstream>"),
              OPAL_OK);
    boost::shared_ptr<IAudioTrack> audio;
    ASSERT_EQ(m_parser->GetAudioTrack(0, audio), OPAL_OK);
    EXPECT_EQ(audio->GetLanguage(), "xyz");
    EXPECT_EQ(audio->GetHeaderRequestSize(), 500u);
    EXPECT_EQ(audio->GetReservedBandwidth(), -64000);
    EXPECT_EQ(audio->GetAssetId(), 42);
    ASSERT_EQ(m_parser->GetAudioTrack(1, audio), OPAL_OK);
    EXPECT_EQ(audio->GetURI() + audio->GetLanguage(), "und");
    EXPECT_EQ(m_parser->GetAudioTrack(2, audio), OPAL_ERROR_OUT_OF_RANGE);
    boost::shared_ptr<ISubtitleTrack> subtitle;
    ASSERT_EQ(m_parser->GetSubtitleTrack(0, subtitle), OPAL_OK);
    EXPECT_EQ(subtitle->GetLanguage(), "und");
    EXPECT_EQ(subtitle->GetMimeType(), "t");
    EXPECT_EQ(m_parser->GetSubtitleTrack(1, subtitle), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_THAT(Errors(),
                ElementsAre("Invalid language detected ''--setting to undefined \"und\"",
                            "Invalid language detected 'engl'--setting to undefined \"und\""));
}

TEST_F(SMILParserTest, ValuesThatDoNotConvert) {
    ASSERT_EQ(ParsePar("<video src='v' systemBitrate='800000'>"
                       "<param name='vbv' value='7'/><param name='vbv' value='8abc'/>"
                       "<param name='header-request' value='100 '/></video>"
                       "<video src='w' systemBitrate='x12'>"
                       "<param name='header-request' value='-1'/></video>"
                       "<textstream src='s' xml:lang='eng'><param name='assetId' value='abc'/>"
                       "<param name='reservedBandwidth' value='99999999999'/>"
                       "<param name='header-request' value=''/></textstream>"),
              OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("v:0", "w:0"));
    boost::shared_ptr<IVideoLevel> level;
    ASSERT_EQ(m_parser->GetVideoLevel(0, level), OPAL_OK);
    EXPECT_EQ(level->GetVBVSize(), 7) << "the bitrate pays for it";
    EXPECT_EQ(level->GetHeaderRequestSize(), 0u);
    std::string value;
    EXPECT_TRUE(level->GetParam("header-request", value));
    EXPECT_EQ(value, "100 ");
    ASSERT_EQ(m_parser->GetVideoLevel(1, level), OPAL_OK);
    EXPECT_EQ(level->GetHeaderRequestSize(), 0xFFFFFFFFu) << "wraps in 32 bits";
    boost::shared_ptr<ISubtitleTrack> subtitle;
    ASSERT_EQ(m_parser->GetSubtitleTrack(0, subtitle), OPAL_OK);
    EXPECT_EQ(subtitle->GetAssetId(), 0);
    EXPECT_EQ(subtitle->GetReservedBandwidth(), 0);
    const std::string start = "Could not convert invalid ";
    EXPECT_THAT(
        Errors(),
        ElementsAre(start + "video vbv size '8abc' to size_t--setting to zero",
                    start + "video Header Request size '100 ' to size_t--setting to zero",
                    start + "audio assetId 'abc' to int--setting to -1",
                    start + "audio reservedBandwidth size '99999999999' to int--setting to zero",
                    start + "audio Header Request size '' to size_t--setting to zero"));
}

TEST_F(SMILParserTest, WhatIsNoManifest) {
    EXPECT_EQ(m_parser->ParseSMILData(nullptr, 5), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(m_parser->ParseSMILData("<smil/>", 0), OPAL_ERROR_INVALID_ARGUMENT);
    const std::string missing = "ParseSMIL error in GetIntoElemBlock ELEM_";
    const std::pair<const char*, const char*> cases[] = {
        {"<Smil><body><par/></body></Smil>", "SMIL"},
        {"<smil><par/></smil>", "BODY"},
        {"<smil><body/></smil>", "PAR"},
        {"<?xml version='1.0'", "SMIL"},
    };
    for (const auto& [text, element] : cases) {
        EXPECT_EQ(Parse(text), OPAL_ERROR_GENERAL) << text;
        EXPECT_THAT(Errors(), ElementsAre(missing + element)) << text;
    }
    EXPECT_EQ(Parse("<smil><body>"), OPAL_ERROR_GENERAL);
    EXPECT_THAT(Errors(),
                ElementsAre(HasSubstr("Error in XML parsing: "), "xml data: '<smil><body>'"));
    EXPECT_EQ(Parse(std::string(1, '\0')), OPAL_ERROR_GENERAL) << "an empty text";
    EXPECT_EQ(ParsePar(""), OPAL_OK);
    EXPECT_THAT(Levels(), IsEmpty());
    for (const char* entry :
         {"<video/>", "<switch><video systemProfile='TavoPlusTrickTrack'/></switch>",
          "<textstream src='s'/>", "<textstream xml:lang='eng'/>",
          "<audio><param name='x'/></audio>", "<video src='v'><param value='x'/></video>"}) {
        EXPECT_EQ(ParsePar(entry), OPAL_ERROR_GENERAL) << entry;
        EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Missing attribute '"))) << entry;
    }
}

std::string Repeat(const std::string& text, size_t count) {
    std::string result;
    while (count-- > 0)
        result += text;
    return result;
}

TEST_F(SMILParserTest, BoundedWhateverTheText) {
    // Each of these overflows the stack, the memory or the patience when parsed as it stands.
    const std::string deep = Repeat("<x>", 100000);
    EXPECT_EQ(Parse("<smil>" + deep), OPAL_ERROR_GENERAL);
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Error in XML parsing: ")));
    EXPECT_EQ(Parse("<a b='\xF0'> <c d='" + deep), OPAL_ERROR_GENERAL)
        << "a broken character swallows the quote, and with it the idea of what is quoted";
    EXPECT_EQ(Parse("<?xml version='> <!-- '?>" + deep), OPAL_ERROR_GENERAL);
    EXPECT_EQ(ParsePar(Repeat("<x/>", 100000)), OPAL_ERROR_GENERAL);
    std::string attributes;
    for (int i = 0; i < 100000; ++i)
        attributes += " a" + std::to_string(i) + "=1";
    EXPECT_EQ(ParsePar("<x" + attributes + "/>"), OPAL_ERROR_GENERAL);
    EXPECT_EQ(ParsePar("<!--" + std::string(kMaxManifestSize, '-') + "-->"), OPAL_ERROR_GENERAL);

    const std::string nested = Repeat("<x>", kMaxManifestDepth - 3);
    EXPECT_EQ(ParsePar(nested + "<!--<x><x>--><x a='<x><x>'/><![CDATA[<x><x>]]>" +
                       Repeat("</x>", kMaxManifestDepth - 3)),
              OPAL_ERROR_GENERAL);
    EXPECT_EQ(ParsePar(nested.substr(3) + "<!--<x><x>--><x a='<x><x>'/><![CDATA[<x><x>]]>" +
                       Repeat("</x>", kMaxManifestDepth - 4)),
              OPAL_OK);
}

TEST_F(SMILParserTest, CutAtEveryLength) {
    const std::string text =
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?><smil><!-- \xC3\xA9 --><body><par>"
        "<video src='\xF0\x9F\x8E\xAC' systemBitrate='5'/>&#x41;<![CDATA[x]]></par></body></smil>";
    for (size_t size = 1; size < text.size(); ++size)
        EXPECT_EQ(Parse(text.substr(0, size)), OPAL_ERROR_GENERAL) << size;
    EXPECT_EQ(Parse(text), OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("\xF0\x9F\x8E\xAC:5"));
}

TEST_F(SMILParserTest, FetchesTheManifest) {
    const std::string url = "http://host/a.smil";
    const auto server = std::make_shared<FakeHTTPServer>();
    RegisterFakeHTTP(server);
    server->AddFile(url, "<smil><body><par><video src='v'/></par></body></smil>");
    EXPECT_EQ(Fetch(url), OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("v:0"));
    EXPECT_EQ(server->OpenFiles(), 0u);

    EXPECT_EQ(Fetch("http://host/none"), OPAL_ERROR_HTTP_CLIENT);
    EXPECT_THAT(Errors(), ElementsAre("HTTP error opening SMIL file: 'http://host/none' httpfile "
                                      "error: '-12'"));
    server->AddRule(FakeRule::Fail(OPAL_ERROR_TIMEOUT, url, FakeRule::Kind::Read));
    EXPECT_EQ(Fetch(url), OPAL_ERROR_TIMEOUT);
    EXPECT_THAT(Errors(), ElementsAre("HTTP error requesting SMIL file: '" + url +
                                      "' httpfile error: '-14'"));
    server->AddFile("http://host/text", "text");
    EXPECT_EQ(Fetch("http://host/text"), OPAL_ERROR_GENERAL);
    ASSERT_FALSE(Errors().empty());
    EXPECT_EQ(Errors().back(), "ParseSMILData error: 'http://host/text' size: 4");
    server->AddFile("http://host/film", std::string(kMaxManifestSize + 1, ' '));
    server->ClearLog();
    EXPECT_EQ(Fetch("http://host/film"), OPAL_ERROR_GENERAL);
    EXPECT_THAT(server->Reads(), IsEmpty()) << "not even asked for";
    ObjectFactory::Instance().Reset();
    EXPECT_EQ(Fetch(url), OPAL_ERROR_GENERAL) << "no transport";
}

class RecordingSender : public NullLogEventSender {
  public:
    RecordingSender() { m_level3 = true; }
    OPALError Send(const std::string& document) override {
        sent += document;
        return OPAL_OK;
    }
    std::string sent;
};

TEST_F(SMILParserTest, TheTextIsLoggedEvenIfItIsBad) {
    RecordingSender sender;
    LogServer& server = LogServer::Instance();
    server.Start(&sender);
    bool connected = false;
    for (int i = 0; i < 5000 && !connected; ++i) {
        LogEvent* probe = LogEventFactory::Instance().NewTraceLogEvent("probe");
        connected = server.Post(probe);
        if (!connected) {
            LogEventFactory::Instance().Destroy(probe);
            SleepMs(1);
        }
    }
    ASSERT_TRUE(connected);
    EXPECT_EQ(Parse("no manifest"), OPAL_ERROR_GENERAL);
    EXPECT_EQ(m_parser->ParseSMILData("x", 0), OPAL_ERROR_INVALID_ARGUMENT);
    server.Stop();
    EXPECT_THAT(sender.sent, HasSubstr("<trace>no manifest</trace>"));
    EXPECT_EQ(sender.sent.find("<trace>x</trace>"), std::string::npos);
}

}  // namespace
}  // namespace opal::test
