#pragma once

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <string>

#include "Common/ConfigurationFiles.h"
#include "Common/MemoryBuffer.h"
#include "opal-service/Simulator.h"
#include "support/TemporaryDirectory.h"

namespace opal::test {

inline qutl::MemoryBuffer<unsigned char> Bytes(const std::string& text) {
    qutl::MemoryBuffer<unsigned char> bytes;
    bytes.Assign(reinterpret_cast<const unsigned char*>(text.data()), text.size(), 0, false);
    return bytes;
}

/// The services, and an endpoint file that leads to them.
class ServiceFixture : public testing::Test {
  protected:
    ServiceFixture() { SetConfigurationDirectory(m_folder.Path()); }
    ~ServiceFixture() override { SetConfigurationDirectory("."); }

    void StartServices(service::SimulatorSettings settings = {}) {
        settings.manifest = "<smil>a &amp; b</smil>";
        m_services.reset(new service::Simulator(settings));
        std::string error;
        ASSERT_TRUE(m_services->Start(&error)) << error;
        m_folder.Write("WNCEndPoint.cfg", m_services->EndpointFile());
    }
    void Fail(const std::string& failure) {
        m_services->SetFailures({service::Failure::FromText(failure)});
    }
    /// Connections since this was last asked. The server may not have come to the last ones yet; it
    /// serves them in order, so one more of the test's own is behind them.
    size_t Accepts() {
        const size_t before = m_accepts;
        boost::asio::io_context context;
        boost::asio::ip::tcp::socket marker(context);
        boost::system::error_code code;
        marker.connect({boost::asio::ip::make_address("127.0.0.1"), m_services->Port()}, code);
        marker.shutdown(boost::asio::socket_base::shutdown_send, code);
        char bytes[256];
        while (marker.read_some(boost::asio::buffer(bytes), code) > 0) {
        }
        m_accepts = m_services->ConnectionsAccepted();
        return m_accepts - before - 1;
    }

    TemporaryDirectory m_folder;
    std::unique_ptr<service::Simulator> m_services;
    size_t m_accepts = 0;
};

}  // namespace opal::test
