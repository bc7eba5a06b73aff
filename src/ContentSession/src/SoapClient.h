#pragma once

#include <soapcontentProxy.h>

#include <boost/noncopyable.hpp>
#include <memory>
#include <string>

#include "StreamingReader/HTTPFile/HTTPConnection.h"

/// The generated stub with gSOAP's input and output laid over a connection of the library's.
///
/// Threading: none.
/// Ownership: answers live until the next Begin.
class SoapClient : boost::noncopyable {
  public:
    explicit SoapClient(std::unique_ptr<opal::IServiceConnection> connection);
    ~SoapClient();

    /// Forgets the last answer and takes the address of the next call.
    contentProxy& Begin(const std::string& url, const opal::StopSignal* stop);
    /// The address in the form that the stub takes: TLS is the connection's business.
    const char* GetStubUrl() const { return m_stubUrl.c_str(); }
    bool RefreshTls() { return m_connection->Refresh(); }

  private:
    static SOAP_SOCKET OnOpen(struct soap* soap, const char* url, const char* host, int port);
    static int OnClose(struct soap* soap);
    static int OnSend(struct soap* soap, const char* bytes, size_t size);
    static size_t OnReceive(struct soap* soap, char* bytes, size_t size);
    static int OnPoll(struct soap* soap);
    static int OnSocket(struct soap* soap, SOAP_SOCKET socket);
    static int OnShutdown(struct soap* soap, SOAP_SOCKET socket, int how);

    const std::unique_ptr<opal::IServiceConnection> m_connection;
    contentProxy m_proxy;
    std::string m_url;
    std::string m_stubUrl;
    const opal::StopSignal* m_stop = nullptr;
};
