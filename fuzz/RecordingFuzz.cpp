// Any bytes as the recording of a session: read, drawn up as a report, written and read again.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <variant>

#include "opal-report/SessionReport.h"
#include "recording/SessionReader.h"
#include "recording/SessionWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace opal::recording;
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    Session session;
    std::string error;
    if (!SessionReader::Read(in, &session, &error)) {
        if (error.empty())
            std::abort();
        return 0;
    }
    opal::report::SessionReport report;
    report.SetHeader(session.header);
    std::string lines = ToLine(session.header) + "\n";
    for (const Record& record : session.records) {
        report.Take(record);
        lines += ToLine(record, session.header.startUs) + "\n";
    }
    report.Finish();
    (void)report.Summary().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

    // What was read is whole, so it can be read again, each line of it.
    std::istringstream written(lines);
    Session again;
    if (!SessionReader::Read(written, &again, &error) || again.unreadable != 0 ||
        again.skipped != 0 || again.records.size() != session.records.size())
        std::abort();
    for (size_t i = 0; i < again.records.size(); ++i)
        if (ToLine(again.records[i], again.header.startUs) !=
            ToLine(session.records[i], session.header.startUs))
            std::abort();
    return 0;
}
