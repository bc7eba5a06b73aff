#include "Common/network/NetworkInterface.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <string>

#include "Common/ConfigurationFiles.h"
#include "Common/network/NetworkCaptureConfig.h"
#include "support/TemporaryDirectory.h"

namespace {

/// Interfaces that exist for the test alone, all with one address: two that count, one that is
/// down, one of another family, one whose address is missing.
struct Interfaces {
    Interfaces() {
        const char* const names[] = {"wlan0", "eth3", "eth4", "eth5", "eth6"};
        for (int n = 0; n < 5; ++n) {
            addresses[n].sin_family = n == 3 ? AF_INET6 : AF_INET;
            inet_pton(AF_INET, "10.0.0.5", &addresses[n].sin_addr);
            entries[n].ifa_name = const_cast<char*>(names[n]);
            entries[n].ifa_flags = n == 2 ? 0 : IFF_UP;
            entries[n].ifa_addr = n == 4 ? nullptr : reinterpret_cast<sockaddr*>(&addresses[n]);
            entries[n].ifa_next = n < 4 ? &entries[n + 1] : nullptr;
        }
    }
    ifaddrs entries[5] = {};
    sockaddr_in addresses[5] = {};
    int result = 0;
    int asked = 0;
    int freed = 0;
};

Interfaces* g_interfaces = nullptr;

class NetworkInterfaceTest : public testing::Test {
  protected:
    NetworkInterfaceTest() {
        g_interfaces = &interfaces;
        opal::NetworkSource source;
        source.sysfsRoot = sysfs.Path();
        source.getAddresses = [](ifaddrs** list) {
            ++g_interfaces->asked;
            *list = g_interfaces->entries;
            return g_interfaces->result;
        };
        source.freeAddresses = [](ifaddrs*) { ++g_interfaces->freed; };
        opal::SetNetworkSource(source);
    }
    ~NetworkInterfaceTest() override { opal::SetNetworkSource(); }

    /// What the files of an interface say; null: there is no such file.
    void SetLink(const std::string& name, const char* carrier, const char* state) {
        const std::string folder = "class/net/" + name + "/";
        std::filesystem::remove_all(sysfs.File(folder));
        if (carrier)
            sysfs.Write(folder + "carrier", carrier);
        if (state)
            sysfs.Write(folder + "operstate", state);
    }

    /// "up" or "down", with "?" behind it if the state is unknown.
    static std::string Link(const std::string& address) {
        const NetworkInterface& network = NetworkInterface::Instance();
        return std::string(network.IsLinkUp(address) ? "up" : "down") +
               (network.IsLinkUnknown(address) ? "?" : "");
    }

    opal::test::TemporaryDirectory sysfs;
    Interfaces interfaces;
};

TEST_F(NetworkInterfaceTest, BothFilesHaveToSayDown) {
    const struct {
        const char* carrier;
        const char* state;
        const char* link;
    } kCases[] = {{"1\n", "up\n", "up"},      {"0\n", "down\n", "down"},
                  {"0\n", "unknown\n", "up"}, {"0\n", "downtown\n", "up"},
                  {"1\n", "down\n", "up"},    {"0\n", nullptr, "up"},
                  {"", "down\n", "up?"},      {"x", "up\n", "up?"},
                  {nullptr, "down\n", "up?"}, {nullptr, nullptr, "up?"}};
    for (const auto& test : kCases) {
        SetLink("eth0", test.carrier, test.state);
        EXPECT_EQ(test.link, Link(""))
            << (test.carrier ? test.carrier : "none") << " " << (test.state ? test.state : "none");
    }
    EXPECT_EQ(0, interfaces.asked) << "without an address eth0 is meant";
}

TEST_F(NetworkInterfaceTest, LooksAtTheLastInterfaceThatHasTheAddress) {
    SetLink("eth0", "1", "up");
    SetLink("wlan0", "1", "up");
    SetLink("eth3", "0", "down");
    EXPECT_EQ("down", Link("10.0.0.5"));
    EXPECT_EQ("up", Link("10.0.0.6")) << "nobody's address is eth0's";
    EXPECT_EQ(interfaces.asked, interfaces.freed);
    interfaces.result = -1;
    EXPECT_EQ("up", Link("10.0.0.5"));
    EXPECT_NE(interfaces.asked, interfaces.freed) << "nothing was given";
}

TEST(NetworkCaptureConfig, LoadsTheFileOrChangesNothing) {
    const opal::test::TemporaryDirectory folder;
    opal::SetConfigurationDirectory(folder.Path());
    NetworkCaptureConfig config;
    config.device = "ifb0";
    config.snapshotLength = 7;
    EXPECT_EQ(OPAL_ERROR_GENERAL, config.Load()) << "no file";
    const std::string length = "</snapshot-length></settings>",
                      good =
                          "<?xml version=\"1.0\"?><settings><device>eth1</device><other/>"
                          "<filter>port 8080</filter><snapshot-length>96" +
                          length;
    std::string nested;
    for (int n = 0; n < 30000; ++n)
        nested += "<settings>";
    for (const std::string& bad :
         {std::string("settings"), good.substr(0, good.size() - 20), nested,
          "<settings><device>x</device><snapshot-length>many" + length,
          std::string("<settings><device>x</device><filter/></settings>")}) {
        folder.Write("kmt_net_cap_config.xml", bad);
        EXPECT_EQ(OPAL_ERROR_GENERAL, config.Load()) << bad.substr(0, 200);
        EXPECT_EQ("ifb0", config.device);
    }
    folder.Write("kmt_net_cap_config.xml", "<settings/>");
    EXPECT_EQ(OPAL_OK, config.Load());
    EXPECT_EQ(",port 80", config.device + "," + config.filter);
    EXPECT_EQ(7u, config.snapshotLength) << "has no default";
    folder.Write("kmt_net_cap_config.xml", good);
    EXPECT_EQ(OPAL_OK, config.Load());
    EXPECT_EQ("eth1,port 8080", config.device + "," + config.filter);
    EXPECT_EQ(96u, config.snapshotLength);
    opal::SetConfigurationDirectory(".");
}

}  // namespace
