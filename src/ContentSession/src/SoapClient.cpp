#include "ContentSession/src/SoapClient.h"

namespace {

// What no answer needs more of.
constexpr ULONG64 kMaxAnswer = 16 << 20;
constexpr long kMaxText = 8 << 20;
constexpr unsigned int kMaxNesting = 64;
constexpr size_t kMaxElements = 1000;

/// gSOAP asks only whether the number could be a socket's.
constexpr SOAP_SOCKET kSomeSocket = 0x7FFFFFFF;

SoapClient& ClientOf(struct soap* soap) {
    return *static_cast<SoapClient*>(soap->user);
}

}  // namespace

SoapClient::SoapClient(std::unique_ptr<opal::IServiceConnection> connection)
    : m_connection(std::move(connection)), m_proxy(SOAP_C_UTFSTRING | SOAP_XML_TREE) {
    struct soap& soap = *m_proxy.soap;
    soap.user = this;
    soap.recv_maxlength = kMaxAnswer;
    soap.maxlength = kMaxText;
    soap.maxlevel = kMaxNesting;
    soap.maxoccurs = kMaxElements;
    soap.fopen = &OnOpen;
    soap.fclose = &OnClose;
    soap.fsend = &OnSend;
    soap.frecv = &OnReceive;
    soap.fpoll = &OnPoll;
    soap.fclosesocket = &OnSocket;
    soap.fshutdownsocket = &OnShutdown;
}

SoapClient::~SoapClient() {
    m_proxy.destroy();
}

contentProxy& SoapClient::Begin(const std::string& url, const opal::StopSignal* stop) {
    m_proxy.destroy();
    m_url = url;
    const size_t scheme = url.find("://");
    m_stubUrl = "http" + (scheme == std::string::npos ? "://" + url : url.substr(scheme));
    m_stop = stop;
    return m_proxy;
}

SOAP_SOCKET SoapClient::OnOpen(struct soap* soap, const char*, const char*, int) {
    using Result = opal::IServiceConnection::Result;
    SoapClient& client = ClientOf(soap);
    const Result result = client.m_connection->Connect(client.m_url, client.m_stop);
    if (result == Result::kConnected)
        return kSomeSocket;
    soap->error = result == Result::kTlsFailed ? SOAP_SSL_ERROR : SOAP_TCP_ERROR;
    return SOAP_INVALID_SOCKET;
}

int SoapClient::OnClose(struct soap* soap) {
    ClientOf(soap).m_connection->Close();
    soap->socket = SOAP_INVALID_SOCKET;
    return SOAP_OK;
}

int SoapClient::OnSend(struct soap* soap, const char* bytes, size_t size) {
    return ClientOf(soap).m_connection->Send(bytes, size) ? SOAP_OK : SOAP_EOF;
}

size_t SoapClient::OnReceive(struct soap* soap, char* bytes, size_t size) {
    return ClientOf(soap).m_connection->Receive(bytes, size);
}

int SoapClient::OnPoll(struct soap*) {
    return SOAP_OK;
}

int SoapClient::OnSocket(struct soap*, SOAP_SOCKET) {
    return SOAP_OK;
}

int SoapClient::OnShutdown(struct soap*, SOAP_SOCKET, int) {
    return SOAP_OK;
}
