#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace opal::report {

/// What the page is made of; the build embeds it.
struct PageParts {
    std::string_view style;
    std::string_view script;
    std::string_view d3;
};
const PageParts& GetPageParts();

/// One HTML page that needs nothing else. `data` is what ToJson makes of sessions; none of its
/// texts can become markup or script.
std::string MakePage(const nlohmann::json& data);

}  // namespace opal::report
