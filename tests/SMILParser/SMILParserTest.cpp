#include "SMILParser/src/SMILParser.h"

#include <gmock/gmock.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/spi/loggingevent.h>

#include <memory>
#include <sstream>
#include <type_traits>

#include "Common/logging/Logger.h"
#include "SMILParser/src/ManifestScan.h"
#include "support/FakeHTTPFile.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Texts = std::vector<std::string>;

/// Keeps the messages at error level.
class ErrorCollector : public log4cxx::AppenderSkeleton {
  public:
    void close() override {}
    bool requiresLayout() const override { return false; }
    Texts messages;

  protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
        if (event->getLevel()->isGreaterOrEqual(log4cxx::Level::getError()))
            messages.push_back(event->getMessage());
    }
};

/// "uri:bitrate:vbv:header" of video, "uri:language:bandwidth:asset:header" of the other kinds.
template <typename Entry>
std::string Describe(const Entry& entry) {
    std::ostringstream text;
    text << entry.GetURI() << ':';
    if constexpr (std::is_same_v<Entry, IAudioTrack> || std::is_same_v<Entry, ISubtitleTrack>)
        text << entry.GetLanguage() << ':' << entry.GetReservedBandwidth() << ':'
             << entry.GetAssetId();
    else
        text << entry.GetBitrate() << ':' << entry.GetVBVSize();
    text << ':' << entry.GetHeaderRequestSize();
    return text.str();
}

class SMILParserTest : public testing::Test {
  protected:
    SMILParserTest() {
        m_logger->setAdditivity(false);
        m_logger->addAppender(m_errors);
    }
    ~SMILParserTest() override { m_logger->removeAppender(m_errors); }

    ISMILParser& Fresh() {
        m_parser.reset(NewSMILParser());
        m_errors->messages.clear();
        return *m_parser;
    }
    OPALError Parse(const std::string& text) {
        return Fresh().ParseSMILData(text.c_str(), text.size());
    }
    OPALError ParsePar(const std::string& content) {
        return Parse("<?xml version=\"1.0\"?>\n<smil xmlns='x'><head/><body><par>" + content +
                     "</par><par><video src='second'/></par></body></smil>");
    }
    template <typename Entry>
    Texts List(OPALError (ISMILParser::*get)(size_t, boost::shared_ptr<Entry>&) const) const {
        Texts texts;
        boost::shared_ptr<Entry> entry;
        OPALError result = OPAL_OK;
        for (size_t i = 0; (result = (m_parser.get()->*get)(i, entry)) == OPAL_OK; ++i)
            texts.push_back(Describe(*entry));
        EXPECT_EQ(result, OPAL_ERROR_OUT_OF_RANGE);
        EXPECT_EQ(entry, nullptr);
        return texts;
    }
    Texts Levels() const { return List(&ISMILParser::GetVideoLevel); }
    const Texts& Errors() const { return m_errors->messages; }

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
    EXPECT_THAT(Levels(), ElementsAre("e:0:0:0", "b:300000:0:0", "d:300000:0:0", "c:600000:0:0",
                                      "a:900000:1800000:77"));
    EXPECT_THAT(Errors(), IsEmpty());

    boost::shared_ptr<IVideoLevel> level;
    ASSERT_EQ(m_parser->GetVideoLevel(4, level), OPAL_OK);
    Fresh();  // an entry outlives its parser
    EXPECT_EQ(level->GetWidth(), 1920);
    EXPECT_EQ(level->GetHeight(), 1080);
    EXPECT_EQ(level->GetMimeType(), "video/x");
    std::string value = "old";
    EXPECT_TRUE(level->GetParam("vbv2", value));
    EXPECT_EQ(value, "2");
    EXPECT_FALSE(level->GetParam("", value));
    EXPECT_EQ(value, "");
}

TEST_F(SMILParserTest, TracksOfEveryKind) {
    const std::string trick = " a='1' systemBaseProfile='TavoPlusTrickTrack' systemProfile='x'/>";
    ASSERT_EQ(ParsePar("<switch><video src='t1' systemBitrate='9'" + trick + "<video src='t2'" +
                       trick + "<video src='l1' systemProfile='tavoplustricktrack'/></switch>" +
                       "<video src='l2'" + trick +
                       "<audio src='a' xml:lang='xyz'><param name='header-request' value='500'/>"
                       "<param name='reservedBandwidth' value='-64000'/>"
                       "<param name='assetId' value='42'/></audio><audio/>"
                       "<textstream src='s' xml:lang='engl'/>"),
              OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("l1:0:0:0", "l2:0:0:0"));
    EXPECT_THAT(List(&ISMILParser::GetVideoTrickTrack), ElementsAre("t1:9:0:0", "t2:0:0:0"))
        << "never sorted";
    EXPECT_THAT(List(&ISMILParser::GetAudioTrack),
                ElementsAre("a:xyz:-64000:42:500", ":und:0:0:0"));
    EXPECT_THAT(List(&ISMILParser::GetSubtitleTrack), ElementsAre("s:und:0:0:0"));
    EXPECT_THAT(Errors(),
                ElementsAre("Invalid language detected ''--setting to undefined \"und\"",
                            "Invalid language detected 'engl'--setting to undefined \"und\""));
}

TEST_F(SMILParserTest, AnotherChildOfASwitchEndsTheWalkQuietly) {
    for (const char* wrap : {"", "excl"}) {
        const std::string open = *wrap ? "<excl>" : "", close = *wrap ? "</excl>" : "";
        ASSERT_EQ(ParsePar("<audio src='a' xml:lang='eng'/>" + open +
                           "<switch><video src='v'/><audio src='b'/><video src='w'/></switch>" +
                           close + "<video src='x'/>"),
                  OPAL_OK);
        EXPECT_THAT(Levels(), ElementsAre("v:0:0:0"));
        EXPECT_EQ(List(&ISMILParser::GetAudioTrack).size(), 1u);
        EXPECT_THAT(Errors(), IsEmpty());
    }
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
    // The bitrate pays for a bad VBV size; a negative size wraps in 32 bits.
    EXPECT_THAT(Levels(), ElementsAre("v:0:7:0", "w:0:0:4294967295"));
    EXPECT_THAT(List(&ISMILParser::GetSubtitleTrack), ElementsAre("s:eng:0:0:0"));
    const std::string start = "Could not convert invalid ";
    EXPECT_THAT(
        Errors(),
        ElementsAre(start + "video vbv size '8abc' to size_t--setting to zero",
                    start + "video Header Request size '100 ' to size_t--setting to zero",
                    start + "audio assetId 'abc' to int--setting to -1",
                    start + "audio reservedBandwidth size '99999999999' to int--setting to zero",
                    start + "audio Header Request size '' to size_t--setting to zero"));
    boost::shared_ptr<IVideoLevel> level;
    ASSERT_EQ(m_parser->GetVideoLevel(0, level), OPAL_OK);
    std::string value;
    EXPECT_TRUE(level->GetParam("header-request", value));
    EXPECT_EQ(value, "100 ") << "as it stands";
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
    std::string attributes;
    for (int i = 0; i < 100000; ++i)
        attributes += " a" + std::to_string(i) + "=1";
    EXPECT_EQ(Parse("<smil>" + deep), OPAL_ERROR_GENERAL);
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("Error in XML parsing: ")));
    // A broken character swallows the quote, and with it the idea of what is quoted.
    EXPECT_EQ(Parse("<a b='\xF0'> <c d='" + deep), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Parse("<?xml version='> <!-- '?>" + deep), OPAL_ERROR_GENERAL);
    for (const std::string& par : {Repeat("<x/>", 100000), "<x" + attributes + "/>",
                                   "<!--" + std::string(kMaxManifestSize, '-') + "-->"})
        EXPECT_EQ(ParsePar(par), OPAL_ERROR_GENERAL) << par.substr(0, 20);

    // What begins like a reference is none, so it swallows no tag. Either of these texts is read
    // as deeper than it looks, by whoever takes all up to the next semicolon for a character.
    const std::string hidden = Repeat("<a>", 200) + "&#x" + Repeat("</a>", 199) + "</a x41;>";
    EXPECT_EQ(Parse("<smil>" + Repeat(hidden, 325)), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Parse("<smil>" + Repeat("<a>&#x</a>x41;", 21000)), OPAL_ERROR_GENERAL);
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("reference"), HasSubstr("xml data: ")));
    for (const char* par : {"&#;", "&#x;", "&#X41;", "&#65", "&#12345678;", "<x a='&#x4g;'/>"})
        EXPECT_EQ(ParsePar(par), OPAL_ERROR_GENERAL) << par;

    // Comments, quotes and character data do not nest.
    for (const size_t depth : {kMaxManifestDepth - 4, kMaxManifestDepth - 3})
        EXPECT_EQ(ParsePar(Repeat("<x>", depth) + "<!--<x><x>--><x a='<x><x>'/><![CDATA[<x><x>]]>" +
                           Repeat("</x>", depth)),
                  depth == kMaxManifestDepth - 4 ? OPAL_OK : OPAL_ERROR_GENERAL);
}

TEST_F(SMILParserTest, ValuesAreReadAsTheParserReadsThem) {
    const std::pair<const char*, const char*> values[] = {
        {"'a?b=1&c=2&amp;d=&lt;&#65;&#x42;&apos;&quot;&gt;'", "a?b=1&c=2&d=<AB'\">"},
        {"\"it's <here> \xC3\xA9 \xE9t\xE9 /\"", "it's <here> \xC3\xA9 \xE9t\xE9 /"},
        {"a&amp;b<c", "a&amp;b<c"},
        {" = ''", ""},
    };
    for (const auto& [written, read] : values) {
        const std::string equals = *written == ' ' ? "" : "=";
        EXPECT_EQ(ParsePar("text &amp; <video src" + equals + written + " /><!-- & -->"), OPAL_OK);
        EXPECT_THAT(Levels(), ElementsAre(std::string(read) + ":0:0:0"));
    }
    EXPECT_EQ(ParsePar("<video src=\xE9>"), OPAL_ERROR_GENERAL) << "ends within a character";
}

TEST_F(SMILParserTest, CutAtEveryLength) {
    const std::string text =
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?><smil><!-- \xC3\xA9 --><body><par>"
        "<video src='\xF0\x9F\x8E\xAC' systemBitrate='5'/>&#x41;<![CDATA[x]]></par></body></smil>";
    for (size_t size = 1; size < text.size(); ++size)
        EXPECT_EQ(Parse(text.substr(0, size)), OPAL_ERROR_GENERAL) << size;
    EXPECT_EQ(Parse(text), OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("\xF0\x9F\x8E\xAC:5:0:0"));
}

TEST_F(SMILParserTest, FetchesTheManifest) {
    const std::string url = "http://host/a.smil";
    const auto server = std::make_shared<FakeHTTPServer>();
    RegisterFakeHTTP(server);
    server->AddFile(url, "<smil><body><par><video src='v'/></par></body></smil>");
    EXPECT_EQ(Fresh().ParseSMILFile(url), OPAL_OK);
    EXPECT_THAT(Levels(), ElementsAre("v:0:0:0"));
    EXPECT_EQ(server->OpenFiles(), 0u);

    for (const char* entry :
         {"<video src='file:///a'/>", "<audio src='file:///a'/>",
          "<textstream src='file:///a' xml:lang='eng'/>",
          "<switch><video src='file:///a' systemProfile='TavoPlusTrickTrack'/></switch>"}) {
        const std::string text = std::string("<smil><body><par>") + entry + "</par></body></smil>";
        server->AddFile("http://host/local", text);
        server->AddFile("file:///local", text);
        EXPECT_EQ(Fresh().ParseSMILFile("http://host/local"), OPAL_ERROR_GENERAL) << entry;
        EXPECT_EQ(Fresh().ParseSMILFile("file:///local"), OPAL_OK) << entry;
    }

    EXPECT_EQ(Fresh().ParseSMILFile("http://host/none"), OPAL_ERROR_HTTP_CLIENT);
    EXPECT_THAT(Errors(), ElementsAre("HTTP error opening SMIL file: 'http://host/none' httpfile "
                                      "error: '-12'"));
    server->AddRule(FakeRule::Fail(OPAL_ERROR_TIMEOUT, url, FakeRule::Kind::Read));
    EXPECT_EQ(Fresh().ParseSMILFile(url), OPAL_ERROR_TIMEOUT);
    EXPECT_THAT(Errors(), ElementsAre("HTTP error requesting SMIL file: '" + url +
                                      "' httpfile error: '-14'"));
    server->AddFile("http://host/text", "text");
    EXPECT_EQ(Fresh().ParseSMILFile("http://host/text"), OPAL_ERROR_GENERAL);
    ASSERT_FALSE(Errors().empty());
    EXPECT_EQ(Errors().back(), "ParseSMILData error: 'http://host/text' size: 4");
    server->AddFile("http://host/film", std::string(kMaxManifestSize + 1, ' '));
    server->ClearLog();
    EXPECT_EQ(Fresh().ParseSMILFile("http://host/film"), OPAL_ERROR_GENERAL);
    EXPECT_THAT(server->Reads(), IsEmpty()) << "not even asked for";
    ObjectFactory::Instance().Reset();
    EXPECT_EQ(Fresh().ParseSMILFile(url), OPAL_ERROR_GENERAL) << "no transport";
}

}  // namespace
}  // namespace opal::test
