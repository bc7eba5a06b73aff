#include "ContentSession/src/ServerConfig.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Common/Assert.h"
#include "Common/ConfigurationFiles.h"

namespace {

constexpr size_t kMaxHost = 63;
constexpr size_t kMaxName = 127;
constexpr size_t kMaxUrl = 255;
constexpr int32_t kTlsPort = 443;
constexpr int32_t kMaxPort = 65535;
constexpr int kLineSize = 256;
/// A file with more lines is no endpoint file.
constexpr int kMaxLines = 4096;
constexpr const char* kSeparators = " =\t\r";

/// 0 for what is no decimal number of a port.
int32_t ParsePort(const char* text) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return *end == '\0' && value > 0 && value <= kMaxPort ? static_cast<int32_t>(value) : 0;
}

}  // namespace

void ServerConfig::SetProtocol(const char* text) {
    OPAL_ASSERT(text, "protocol");
    const std::string protocol = text;
    if (protocol == "https")
        m_port = kTlsPort;
    else if (protocol != "http") {
        m_valid = false;
        return;
    }
    m_protocol = protocol;
}

void ServerConfig::SetHost(const char* text) {
    OPAL_ASSERT(text, "host");
    m_host = text;
    if (m_host.size() > kMaxHost)
        m_valid = false;
}

void ServerConfig::SetPort(int32_t value) {
    m_port = value;
    if (value <= 0 || value > kMaxPort)
        m_valid = false;
}

void ServerConfig::SetPathPrefix(const char* text) {
    OPAL_ASSERT(text, "path prefix");
    m_pathPrefix = text;
    if (m_pathPrefix.size() > kMaxName)
        m_valid = false;
}

void ServerConfig::SetServiceName(const char* text) {
    OPAL_ASSERT(text, "service name");
    m_serviceName = text;
    if (m_serviceName.size() > kMaxName)
        m_valid = false;
}

void ServerConfig::SetOverrideUrl(const char* text) {
    OPAL_ASSERT(text, "address");
    m_overrideUrl.assign(text, strnlen(text, kMaxUrl));
}

void ServerConfig::ReadFile(const std::string& path) {
    const opal::FileHandle file = opal::OpenRegularFile(path);
    if (!file)
        return;
    // The tail of a longer line is a line of its own, which in general nobody understands.
    char line[kLineSize];
    int lines = 0;
    while (std::fgets(line, kLineSize, file.get()) && ++lines <= kMaxLines)
        ReadLine(line);
    if (lines > kMaxLines)
        m_valid = false;
    if (m_protocol == "http")
        m_pathPrefix = "wnc";
}

void ServerConfig::ReadLine(char* line) {
    if (char* end = std::strrchr(line, '\n'))
        *end = '\0';
    char* rest = nullptr;
    const char* key = strtok_r(line, kSeparators, &rest);
    if (!key || *key == '#')
        return;
    const char* value = strtok_r(nullptr, kSeparators, &rest);
    if (value)
        Apply(key, value);
    else
        m_valid = false;
}

void ServerConfig::Apply(const std::string& key, const char* value) {
    if (key == "ServerProtocol")
        SetProtocol(value);
    else if (key == "ServerHost")
        SetHost(value);
    else if (key == "ServerPort")
        SetPort(ParsePort(value));
    else
        m_valid = false;
}

std::string ServerConfig::GetUrl() const {
    if (!m_valid)
        return "ERROR: invalid server config";
    if (!m_overrideUrl.empty())
        return m_overrideUrl;
    std::string url = m_protocol + "://" + m_host + ":" + std::to_string(m_port) + "/";
    if (!m_pathPrefix.empty())
        url += m_pathPrefix + "/";
    url += m_serviceName;
    return url.substr(0, kMaxUrl);
}
