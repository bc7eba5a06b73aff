#include "opal-play/Diagnostics.h"

#include <log4cxx/helpers/transcoder.h>
#include <log4cxx/spi/loggingevent.h>

#include <cstdlib>

namespace opal::play {
namespace {

bool NumberBehind(const std::string& text, const char* word, int64_t& value) {
    const size_t at = text.find(word);
    if (at == std::string::npos)
        return false;
    value = std::strtoll(text.c_str() + at + std::char_traits<char>::length(word), nullptr, 10);
    return true;
}

}  // namespace

void NetworkMeter::Read(const std::string& message) {
    int64_t value = 0;
    if (NumberBehind(message, " download size=", value)) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_figures.clusters;
        m_figures.bytes += value > 0 ? static_cast<uint64_t>(value) : 0;
    } else if (NumberBehind(message, " bandwidth.effective=", value) && value > 0) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_figures.linkBitsPerSecond = value;
    } else if (!ReadFailure(message, "cannot open ", false)) {
        (void)ReadFailure(message, "cannot read header and index of ", true);
    }
}

bool NetworkMeter::ReadFailure(const std::string& message, const char* words, bool found) {
    const size_t length = std::char_traits<char>::length(words);
    const size_t colon = message.rfind(": ");
    if (message.compare(0, length, words) != 0 || colon == std::string::npos || colon <= length)
        return false;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failure.url = message.substr(length, colon - length);
    m_failure.code = std::strtoll(message.c_str() + colon + 2, nullptr, 10);
    m_failure.found = found;
    return true;
}

MediaFailure NetworkMeter::Failure() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_failure;
}

NetworkFigures NetworkMeter::Figures() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_figures;
}

void MeterAppender::append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) {
    std::string message;
    log4cxx::helpers::Transcoder::encode(event->getMessage(), message);
    m_meter->Read(message);
}

}  // namespace opal::play
