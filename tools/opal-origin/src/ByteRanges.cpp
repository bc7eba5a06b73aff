#include "opal-origin/src/ByteRanges.h"

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <charconv>
#include <limits>

namespace opal::origin {
namespace {

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// Digits only; an empty text is -1.
bool ParseOffset(std::string_view text, int64_t* pOffset) {
    *pOffset = -1;
    if (text.empty())
        return true;
    if (text.find_first_not_of("0123456789") != std::string_view::npos)
        return false;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *pOffset);
    if (result.ec == std::errc::result_out_of_range)
        *pOffset = std::numeric_limits<int64_t>::max();
    return true;
}

bool ParseRange(std::string_view text, ByteRange* pRange) {
    const size_t dash = text.find('-');
    return dash != std::string_view::npos && text.size() > 1 &&
           ParseOffset(text.substr(0, dash), &pRange->first) &&
           ParseOffset(text.substr(dash + 1), &pRange->last) &&
           (pRange->first < 0 || pRange->last < 0 || pRange->first <= pRange->last);
}

}  // namespace

std::vector<ByteRange> ParseRanges(std::string_view value) {
    constexpr std::string_view unit = "bytes=";
    std::vector<ByteRange> ranges;
    value = Trim(value);
    if (value.size() < unit.size() ||
        !boost::beast::iequals({value.data(), unit.size()}, {unit.data(), unit.size()}))
        return ranges;
    value.remove_prefix(unit.size());
    for (size_t start = 0; start <= value.size();) {
        const size_t end = std::min(value.find(',', start), value.size());
        const std::string_view text = Trim(value.substr(start, end - start));
        ByteRange range;
        if (!text.empty()) {  // a list may have empty elements
            if (!ParseRange(text, &range))
                return {};
            ranges.push_back(range);
        }
        start = end + 1;
    }
    return ranges;
}

std::vector<Span> ResolveRanges(const std::vector<ByteRange>& ranges, int64_t size) {
    std::vector<Span> spans;
    for (const ByteRange& range : ranges) {
        if (range.first < 0) {
            const int64_t length = std::min(range.last, size);
            if (length > 0)
                spans.push_back({size - length, length});
        } else if (range.first < size) {
            const int64_t last = range.last < 0 ? size - 1 : std::min(range.last, size - 1);
            spans.push_back({range.first, last - range.first + 1});
        }
    }
    return spans;
}

}  // namespace opal::origin
