#include "Common/network/NetworkInterface.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>

#include "Common/Mutex.h"
#include "Common/logging/Logger.h"

namespace opal {
namespace {

struct ReplacedSource {
    Mutex mutex;
    NetworkSource source OPAL_GUARDED_BY(mutex);
};

ReplacedSource& Replaced() {
    static ReplacedSource replaced;
    return replaced;
}

NetworkSource CurrentSource() {
    ReplacedSource& replaced = Replaced();
    MutexLock lock(replaced.mutex);
    NetworkSource source = replaced.source;
    if (!source.getAddresses)
        source.getAddresses = &getifaddrs;
    if (!source.freeAddresses)
        source.freeAddresses = &freeifaddrs;
    return source;
}

std::string AddressText(const ifaddrs& entry) {
    char text[INET_ADDRSTRLEN] = "";
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
    return inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text)) ? text : "";
}

/// The last interface that is up and has the address; "eth0" without one.
std::string InterfaceName(const NetworkSource& source, const std::string& localAddress) {
    std::string name = "eth0";
    ifaddrs* list = nullptr;
    if (localAddress.empty() || source.getAddresses(&list) != 0)
        return name;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (entry->ifa_addr && (entry->ifa_flags & IFF_UP) &&
            entry->ifa_addr->sa_family == AF_INET && AddressText(*entry) == localAddress)
            name = entry->ifa_name;
    }
    source.freeAddresses(list);
    return name;
}

/// 0 or 1 as the file says; 2 if it says anything else or cannot be read, as the kernel has it for
/// an interface that was taken down.
int ReadCarrier(const std::string& path) {
    std::ifstream file(path);
    switch (file.get()) {
        case '0':
            return 0;
        case '1':
            return 1;
        default:
            return 2;
    }
}

/// 0 for "down", 2 without a file, else 1.
int ReadOperationalState(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        return 2;
    char line[32] = "";
    file.getline(line, sizeof(line));
    return std::string(line) == "down" ? 0 : 1;
}

}  // namespace

void SetNetworkSource(const NetworkSource& source) {
    ReplacedSource& replaced = Replaced();
    MutexLock lock(replaced.mutex);
    replaced.source = source;
}

}  // namespace opal

class NetworkInterface::PIMPL {
  public:
    PIMPL() : m_logger(getLogger("opal.NetworkInterface")) {}

    void QueryLink(const std::string& localAddress, bool& linkUp, bool& unknown) const {
        linkUp = true;
        unknown = false;
        const opal::NetworkSource source = opal::CurrentSource();
        const std::string folder =
            source.sysfsRoot + "/class/net/" + opal::InterfaceName(source, localAddress) + "/";
        const int carrier = opal::ReadCarrier(folder + "carrier");
        const int state = opal::ReadOperationalState(folder + "operstate");
        if (carrier == 0 && state == 0)  // both must agree
            linkUp = false;
        if (carrier == 2)
            unknown = true;
        LOG4CXX_TRACE(m_logger, folder << " carrier=" << carrier << " operstate=" << state);
    }

  private:
    log4cxx::LoggerPtr m_logger;
};

NetworkInterface& NetworkInterface::Instance() {
    static NetworkInterface instance;
    return instance;
}

NetworkInterface::NetworkInterface() : m_pimpl(new PIMPL) {}

NetworkInterface::~NetworkInterface() = default;

bool NetworkInterface::IsLinkUp(const std::string& localAddress) const {
    bool linkUp = true;
    bool unknown = false;
    m_pimpl->QueryLink(localAddress, linkUp, unknown);
    return linkUp;
}

bool NetworkInterface::IsLinkUnknown(const std::string& localAddress) const {
    bool linkUp = true;
    bool unknown = false;
    m_pimpl->QueryLink(localAddress, linkUp, unknown);
    return unknown;
}
