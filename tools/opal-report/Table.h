#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <variant>
#include <vector>

namespace opal::report {

using Cell = std::variant<std::monostate, int64_t, double, bool, std::string>;
using Row = std::vector<Cell>;

struct Column {
    const char* name;   ///< of CSV and JSON, with its unit
    const char* title;  ///< of the page
};

/// Rows of one kind, all as long as there are columns. Rows are only ever added.
struct Table {
    const char* name;
    const char* title;
    std::vector<Column> columns;
    std::vector<Row> rows;
};

nlohmann::json ToJson(const Cell& cell);
/// {"name", "title", "columns", "titles", "rows"}; `first`: only the rows from there on, at most
/// `most` of them.
nlohmann::json ToJson(const Table& table, size_t first = 0, size_t most = SIZE_MAX);

/// A field as RFC 4180 has it. Text that a spreadsheet would take for a formula is quoted with a
/// leading apostrophe.
std::string ToCsv(const Cell& cell);

}  // namespace opal::report
