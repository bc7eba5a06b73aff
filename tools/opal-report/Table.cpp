#include "opal-report/Table.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

namespace opal::report {

using nlohmann::json;

json ToJson(const Cell& cell) {
    return std::visit(
        [](const auto& value) -> json {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::monostate>)
                return nullptr;
            else
                return value;
        },
        cell);
}

json ToJson(const Table& table, size_t first, size_t most) {
    json columns = json::array();
    json titles = json::array();
    json rows = json::array();
    for (const Column& column : table.columns) {
        columns.push_back(column.name);
        titles.push_back(column.title);
    }
    for (size_t i = first; i < table.rows.size() && i - first < most; ++i) {
        json row = json::array();
        for (const Cell& cell : table.rows[i])
            row.push_back(ToJson(cell));
        rows.push_back(std::move(row));
    }
    return {{"name", table.name},
            {"title", table.title},
            {"columns", columns},
            {"titles", titles},
            {"rows", rows}};
}

std::string ToCsv(const Cell& cell) {
    const auto* text = std::get_if<std::string>(&cell);
    if (!text)
        return std::holds_alternative<std::monostate>(cell) ? std::string() : ToJson(cell).dump();
    const bool formula = !text->empty() && std::strchr("=+-@\t\r", text->front());
    std::string field = formula ? "'" + *text : *text;
    if (field.find_first_of(",\"\r\n") == std::string::npos)
        return field;
    for (size_t at = 0; (at = field.find('"', at)) != std::string::npos; at += 2)
        field.insert(at, 1, '"');
    return '"' + field + '"';
}

}  // namespace opal::report
