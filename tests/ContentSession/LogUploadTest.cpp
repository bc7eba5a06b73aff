#include <gmock/gmock.h>

#include "Common/logging/ILogEventSender.h"
#include "ContentSession/ContentSession.h"
#include "ContentSession/ServiceFixture.h"
#include "ContentSession/src/LogUpload.h"
#include "ContentSession/src/ProtectedContent_WNC.h"

namespace opal::test {

TEST(LogUpload, DocumentAddressAndReply) {
    EXPECT_EQ(LogUploadPrefix({"m", "", "s", "1.2"}) + "E" + LogUploadSuffix(),
              "<servicerequest type='metric'><device-info  Model='m' Session='s' Version='1.2'/>"
              "<device-event-list>E</device-event-list></servicerequest>");
    EXPECT_EQ(LogUploadUrl("http://h/log"), "http://h/log/WNCLogServer");
    EXPECT_EQ(LogUploadUrl("http://h/"), "http://h/WNCLogServer");
    EXPECT_EQ(LogUploadUrl("http://h/WNCLogServer"), "http://h/WNCLogServer");
    const std::pair<std::string, bool> replies[] = {
        {"<serviceresponse status='success'>", true},
        {"<serviceresponse><status>success</status>", true},
        {"<?xml version=\"1.0\"?><a><serviceresponse x=\"y\" status = \"success\"/>", true},
        {"<serviceresponse status='failure'/>", false},
        {"<x status='success'/>", false},
        {"<serviceresponse status='' x='success'/>", false},
        {"<serviceresponse status", false},
        {"<status>success</status><serviceresponse>", false},
        {std::string("<serviceresponse\0 status='success'>", 35), false},
        {"", false}};
    for (const auto& [reply, good] : replies)
        EXPECT_EQ(IsLogReplySuccess(reply), good) << reply;
}

class LogSender : public ServiceFixture {
  protected:
    void SetUp() override {
        service::SimulatorSettings settings;
        settings.logPeriodMinutes = 2;
        settings.logSize = 5000;
        settings.logLevels[1] = false;
        StartServices(settings);
        void* session = nullptr;
        ASSERT_EQ(m_content.Prepare(Bytes("my-session"), &session), OPAL_OK);
        m_session = session;
    }

    ProtectedContent_WNC m_content{ServiceTimeouts{1000, 1000, 5000}};
    void* m_session = nullptr;
    const std::string m_document = "<device-event><action><ts>0</ts></action></device-event>";
};

TEST_F(LogSender, UploadsUnderTheSession) {
    const std::unique_ptr<ILogEventSender> sender(NewUploadLogEventSender(nullptr));
    EXPECT_EQ(sender->Initialize(), OPAL_ERROR_SERVICE_21) << "no session";
    EXPECT_EQ(sender->Send(m_document), OPAL_ERROR_SERVICE_21);
    sender->SetContext(m_session);
    sender->SetContext(nullptr);  // the first stays
    sender->SetLocale("FR", "fr");
    Fail("getLogServerSettings=503");
    EXPECT_EQ(sender->Initialize(), OPAL_ERROR_SERVICE_27);
    m_services->SetFailures({});
    ASSERT_EQ(sender->Initialize(), OPAL_OK);
    EXPECT_EQ(ToText(m_services->Calls().back()),
              "getLogServerSettings country=FR language=fr -> ok");
    EXPECT_EQ(sender->GetTransactionInterval(), 120000);
    EXPECT_EQ(sender->GetTransactionSize(), 5000u);
    EXPECT_TRUE(sender->IsLevel1Enabled());
    EXPECT_FALSE(sender->IsLevel2Enabled());
    EXPECT_TRUE(sender->IsLevel3Enabled());
    EXPECT_EQ(sender->Send(m_document), OPAL_OK);
    const service::Received upload = m_services->Calls().back();
    EXPECT_EQ(upload.Field("method") + " " + upload.Field("type"), "POST text/html");
    EXPECT_EQ(upload.Field("parses"), "true");
    EXPECT_EQ(upload.Field("events"), "1");
    EXPECT_THAT(upload.Field("document"), testing::HasSubstr(" Session='my-session' Version='1."));
    for (const auto& [failure, code] :
         {std::pair<const char*, OPALError>{"logUpload=refuse-1", OPAL_ERROR_SERVICE_21},
          {"logUpload=503", OPAL_ERROR_SERVICE_27},
          {"logUpload=html", OPAL_ERROR_SERVICE_21},
          {"logUpload=close", OPAL_ERROR_SERVICE_27}}) {
        Fail(failure);
        EXPECT_EQ(sender->Send(m_document), code) << failure;
    }
    EXPECT_EQ(sender->Shutdown(), OPAL_OK);
    EXPECT_EQ(sender->Send(m_document), OPAL_ERROR_SERVICE_21);
}

}  // namespace opal::test
