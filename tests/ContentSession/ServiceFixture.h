#pragma once

#include <gtest/gtest.h>

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
    /// Connections since this was last asked.
    size_t Accepts() {
        const size_t before = m_accepts;
        m_accepts = m_services->ConnectionsAccepted();
        return m_accepts - before;
    }

    TemporaryDirectory m_folder;
    std::unique_ptr<service::Simulator> m_services;
    size_t m_accepts = 0;
};

}  // namespace opal::test
