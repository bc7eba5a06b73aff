#include "Common/logging/LogEventSerializer.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <memory>
#include <sstream>

#include "Common/StopSignal.h"
#include "Common/logging/LogEvent.h"

namespace {

constexpr size_t kMaxBufferedSize = 0x10100;
const std::string kPartialBuffer = "<partial-buffer>true</partial-buffer>";
const std::string kActionEnd = "</action>";
const std::string kDocumentEnd = "</action></device-event>";

void EraseDeclaration(std::string& text) {
    if (text.compare(0, 5, "<?xml") != 0)
        return;
    const size_t end = text.find("?>\n");
    if (end != std::string::npos)
        text.erase(0, end + 3);
}

/// The elements of one event, as they stand in the document of all.
std::string Write(const LogEvent& event) {
    boost::property_tree::ptree tree;
    event.Serialize(tree);
    std::ostringstream stream;
    boost::property_tree::xml_writer_settings<std::string> settings(' ', 0, "utf-8");
    boost::property_tree::write_xml(stream, tree, settings);
    std::string text = stream.str();
    EraseDeclaration(text);
    return text;
}

struct Destroyer {
    void operator()(LogEvent* event) const { LogEventFactory::Instance().Destroy(event); }
};

/// The mark goes in front of the root element, outside the document: the service's parser takes it
/// there, deliberately.
void CutToSize(std::string& text, size_t maxSize, bool alreadyMarked) {
    if (text.size() <= maxSize)
        return;
    if (!alreadyMarked)
        text.insert(0, kPartialBuffer);
    if (maxSize < kPartialBuffer.size())
        return;
    const size_t lastAction = text.rfind(kActionEnd, maxSize - kPartialBuffer.size());
    if (lastAction == std::string::npos)
        return;
    text.erase(lastAction);
    text += kDocumentEnd;
}

}  // namespace

LogEventSerializer::~LogEventSerializer() {
    Clear();
}

void LogEventSerializer::AddEvent(LogEvent* event) {
    if (m_bufferedSize >= kMaxBufferedSize) {
        m_overflow = true;
        LogEventFactory::Instance().Destroy(event);
        return;
    }
    m_events.push_back(event);
    m_bufferedSize += event->GetSize();
}

void LogEventSerializer::Serialize(std::string& out, size_t maxSize, const opal::StopSignal* stop) {
    if (m_events.empty())
        return;
    std::string text = "<device-event>";
    if (m_overflow)
        text += kPartialBuffer;
    while (!m_events.empty()) {
        if (opal::IsRaised(stop))
            return;
        const std::unique_ptr<LogEvent, Destroyer> event(m_events.front());
        m_events.pop_front();
        m_bufferedSize -= event->GetSize();
        text += Write(*event);
    }
    text += "</device-event>";
    CutToSize(text, maxSize, m_overflow);
    out = std::move(text);
    m_overflow = false;
}

void LogEventSerializer::Clear() {
    for (LogEvent* event : m_events)
        LogEventFactory::Instance().Destroy(event);
    m_events.clear();
    m_bufferedSize = 0;
}

void LogEventSerializer::Forget() {
    Clear();
    m_overflow = false;
}
