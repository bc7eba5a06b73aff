#include "ContentSession/src/LogUpload.h"

#include <string_view>

namespace {

constexpr const char* kPath = "WNCLogServer";
constexpr std::string_view kSeparators = "< ='\">";

void AddAttribute(std::string& text, const char* name, const std::string& value) {
    if (!value.empty())
        text += std::string(" ") + name + "='" + value + "'";
}

/// The next run of other characters than separators; empty when there is none.
std::string_view NextToken(std::string_view& rest) {
    const size_t begin = rest.find_first_not_of(kSeparators);
    if (begin == std::string_view::npos)
        return {};
    rest.remove_prefix(begin);
    const std::string_view token = rest.substr(0, rest.find_first_of(kSeparators));
    rest.remove_prefix(token.size());
    return token;
}

bool SkipPast(std::string_view& rest, std::string_view wanted) {
    for (std::string_view token = NextToken(rest); !token.empty(); token = NextToken(rest)) {
        if (token == wanted)
            return true;
    }
    return false;
}

}  // namespace

std::string LogUploadPrefix(const LogUploadIdentity& identity) {
    std::string text = "<servicerequest type='metric'><device-info ";
    AddAttribute(text, "Model", identity.model);
    AddAttribute(text, "Instance", identity.instance);
    AddAttribute(text, "Session", identity.session);
    AddAttribute(text, "Version", identity.version);
    return text + "/><device-event-list>";
}

std::string LogUploadSuffix() {
    return "</device-event-list></servicerequest>";
}

std::string LogUploadUrl(const std::string& serviceUrl) {
    const size_t slash = serviceUrl.rfind('/');
    if (slash != std::string::npos && serviceUrl.substr(slash + 1) == kPath)
        return serviceUrl;
    const bool slashAtEnd = !serviceUrl.empty() && serviceUrl.back() == '/';
    return serviceUrl + (slashAtEnd ? "" : "/") + kPath;
}

bool IsLogReplySuccess(const std::string& reply) {
    if (reply.find('\0') != std::string::npos)
        return false;
    std::string_view rest = reply;
    return SkipPast(rest, "serviceresponse") && SkipPast(rest, "status") &&
           NextToken(rest) == "success";
}
