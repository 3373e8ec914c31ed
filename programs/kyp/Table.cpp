#include "kyp/Table.h"

#include <algorithm>

namespace kyptool {

namespace {

constexpr char const* kGap = "  ";

std::string const& cell(Row const& row, size_t column) {
    static std::string const* const none = new std::string;
    return column < row.size() ? row[column] : *none;
}

// A column of numbers stands on its right edge.
bool is_number_column(std::vector<Row> const& rows, size_t column) {
    return std::all_of(rows.begin(), rows.end(), [&](Row const& row) {
        return cell(row, column).find_first_not_of("0123456789") == std::string::npos;
    });
}

bool is_empty_column(std::vector<Row> const& rows, size_t column) {
    return std::all_of(rows.begin(), rows.end(),
                       [&](Row const& row) { return cell(row, column).empty(); });
}

}  // namespace

size_t width_of(std::string const& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

std::string table_text(Row const& heading, std::vector<Row> const& rows) {
    std::vector<Row> lines = rows;
    if (!heading.empty()) lines.insert(lines.begin(), heading);
    size_t columns = 0;
    for (Row const& line : lines) columns = std::max(columns, line.size());

    std::vector<std::string> texts(lines.size());
    for (size_t column = 0; column < columns; ++column) {
        if (!heading.empty() && is_empty_column(rows, column)) continue;
        bool const isRight = !heading.empty() && is_number_column(rows, column);
        size_t width = 0;
        for (Row const& line : lines) width = std::max(width, width_of(cell(line, column)));
        for (size_t i = 0; i < lines.size(); ++i) {
            std::string const& word = cell(lines[i], column);
            std::string const room(width - width_of(word), ' ');
            texts[i] += (isRight ? room + word : word + room) + kGap;
        }
    }
    std::string all;
    for (std::string& text : texts) {
        text.erase(text.find_last_not_of(' ') + 1);
        all += text + "\n";
    }
    return all;
}

}  // namespace kyptool
