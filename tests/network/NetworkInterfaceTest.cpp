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

class NetworkInterfaceTest : public testing::Test {
  protected:
    /// All interfaces have one address: two count, one is down, one is of another family, and the
    /// address of one is missing.
    NetworkInterfaceTest() {
        const char* const names[] = {"wlan0", "eth3", "eth4", "eth5", "eth6"};
        for (int n = 0; n < 5; ++n) {
            addresses[n].sin_family = n == 3 ? AF_INET6 : AF_INET;
            inet_pton(AF_INET, "10.0.0.5", &addresses[n].sin_addr);
            entries[n].ifa_name = const_cast<char*>(names[n]);
            entries[n].ifa_flags = n == 2 ? 0 : IFF_UP;
            entries[n].ifa_addr = n == 4 ? nullptr : reinterpret_cast<sockaddr*>(&addresses[n]);
            entries[n].ifa_next = n < 4 ? &entries[n + 1] : nullptr;
        }
        opal::NetworkSource source;
        source.sysfsRoot = sysfs.Path();
        running = this;
        source.getAddresses = [](ifaddrs** list) {
            ++running->asked;
            *list = running->entries;
            return running->result;
        };
        source.freeAddresses = [](ifaddrs*) { ++running->freed; };
        opal::SetNetworkSource(source);
    }
    ~NetworkInterfaceTest() override { opal::SetNetworkSource(); }

    void SetLink(const std::string& name, const std::string& carrier, const std::string& state) {
        sysfs.Write("class/net/" + name + "/carrier", carrier);
        sysfs.Write("class/net/" + name + "/operstate", state);
    }

    /// "up" or "down", with "?" behind it if the state is unknown.
    static std::string Link(const std::string& address) {
        const NetworkInterface& network = NetworkInterface::Instance();
        return std::string(network.IsLinkUp(address) ? "up" : "down") +
               (network.IsLinkUnknown(address) ? "?" : "");
    }

    static inline NetworkInterfaceTest* running = nullptr;
    opal::test::TemporaryDirectory sysfs;
    ifaddrs entries[5] = {};
    sockaddr_in addresses[5] = {};
    int result = 0;
    int asked = 0;
    int freed = 0;
};

TEST_F(NetworkInterfaceTest, BothFilesHaveToSayDown) {
    EXPECT_EQ("up?", Link("")) << "no files";
    sysfs.Write("class/net/eth0/carrier", "0");
    EXPECT_EQ("up", Link("")) << "one file";
    const struct {
        const char* carrier;
        const char* state;
        const char* link;
    } kCases[] = {{"1\n", "up\n", "up"},      {"0\n", "down\n", "down"},
                  {"0\n", "unknown\n", "up"}, {"0\n", "downtown\n", "up"},
                  {"1\n", "down\n", "up"},    {"", "down\n", "up?"}};
    for (const auto& test : kCases) {
        SetLink("eth0", test.carrier, test.state);
        EXPECT_EQ(test.link, Link("")) << test.carrier << test.state;
    }
    EXPECT_EQ(0, asked) << "without an address eth0 is meant";
}

TEST_F(NetworkInterfaceTest, LooksAtTheLastInterfaceThatHasTheAddress) {
    SetLink("eth0", "1", "up");
    SetLink("wlan0", "1", "up");
    SetLink("eth3", "0", "down");
    EXPECT_EQ("down", Link("10.0.0.5"));
    EXPECT_EQ("up", Link("10.0.0.6")) << "nobody's address is eth0's";
    EXPECT_EQ(asked, freed);
    result = -1;
    EXPECT_EQ("up", Link("10.0.0.5"));
    EXPECT_NE(asked, freed) << "nothing was given";
}

TEST(NetworkCaptureConfig, LoadsTheFileOrChangesNothing) {
    const opal::test::TemporaryDirectory folder;
    opal::SetConfigurationDirectory(folder.Path());
    std::string nested;
    for (int n = 0; n < 30000; ++n)
        nested += "<settings>";
    const std::pair<std::string, std::string> kCases[] = {
        {"settings", ""},
        {"<settings><device>x</device>", ""},
        {nested, ""},
        {"<settings><device>x</device><filter/></settings>", ""},
        {"<settings><device>x</device><snapshot-length>many</snapshot-length></settings>", ""},
        {"<settings/>", ",port 80,7"},  // the length has no default
        {"<?xml version=\"1.0\"?><settings><device>eth1</device><other/><filter>port 8080</filter>"
         "<snapshot-length>96</snapshot-length></settings>",
         "eth1,port 8080,96"}};
    NetworkCaptureConfig config;
    EXPECT_EQ(OPAL_ERROR_GENERAL, config.Load()) << "no file";
    for (const auto& [file, loaded] : kCases) {
        config.device = "ifb0";
        config.filter = "udp";
        config.snapshotLength = 7;
        folder.Write("kmt_net_cap_config.xml", file);
        EXPECT_EQ(loaded.empty() ? OPAL_ERROR_GENERAL : OPAL_OK, config.Load())
            << file.substr(0, 99);
        EXPECT_EQ(
            loaded.empty() ? "ifb0,udp,7" : loaded,
            config.device + "," + config.filter + "," + std::to_string(config.snapshotLength));
    }
    opal::SetConfigurationDirectory(".");
}

}  // namespace
