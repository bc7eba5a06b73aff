#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <string>

struct ifaddrs;

/// Tells whether the local network link is the cause of a failed transfer. The process-wide object
/// has no state: every question reads the system again.
///
/// Threading: any operation from any thread.
/// Errors: none; what cannot be read decides as each operation says.
class NetworkInterface : boost::noncopyable {
  public:
    /// Built on first use.
    static NetworkInterface& Instance();
    virtual ~NetworkInterface();

    /// False only if the link of the interface with this IPv4 address is known to be down. Without
    /// such an interface "eth0" is asked about.
    bool IsLinkUp(const std::string& localAddress) const;
    /// True if the interface's carrier state cannot be read.
    bool IsLinkUnknown(const std::string& localAddress) const;

  private:
    NetworkInterface();

    class PIMPL;
    boost::scoped_ptr<PIMPL> m_pimpl;
};

namespace opal {

/// Where NetworkInterface looks.
struct NetworkSource {
    std::string sysfsRoot = "/sys";
    int (*getAddresses)(ifaddrs** list) = nullptr;   ///< null: getifaddrs
    void (*freeAddresses)(ifaddrs* list) = nullptr;  ///< null: freeifaddrs
};

/// For tests: replaces it. The default argument restores the real system.
void SetNetworkSource(const NetworkSource& source = NetworkSource());

}  // namespace opal
