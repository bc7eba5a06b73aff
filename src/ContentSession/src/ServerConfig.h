#pragma once

#include <cstdint>
#include <string>

/// Where a service is: the parts of its address, or the whole of it.
///
/// Any bad value makes the configuration invalid for good; an invalid one names no address.
/// Threading: none.
class ServerConfig {
  public:
    /// "http" or "https", the latter of which sets the port to 443 too.
    void SetProtocol(const char* text);
    void SetHost(const char* text);
    void SetPort(int32_t value);
    void SetPathPrefix(const char* text);
    void SetServiceName(const char* text);
    /// The whole address; what is beyond 255 bytes is cut off.
    void SetOverrideUrl(const char* text);
    /// Overlays what the endpoint file says: lines of a key and a value, apart by "=", blanks or
    /// tabs; "#" begins a comment. A missing file changes nothing.
    void ReadFile(const std::string& path);

    bool IsValid() const { return m_valid; }
    int32_t GetPort() const { return m_port; }
    const char* GetHost() const { return m_host.c_str(); }
    /// The address, cut at 255 bytes, or a text that is none.
    std::string GetUrl() const;

  private:
    void ReadLine(char* line);
    void Apply(const std::string& key, const char* value);

    std::string m_protocol = "https";
    std::string m_host;
    int32_t m_port = 443;
    std::string m_pathPrefix;
    std::string m_serviceName;
    bool m_valid = true;
    std::string m_overrideUrl;
};
