// Rows of words in columns.
//
// Threads: every function is re-entrant.
#ifndef KYP_PROGRAMS_KYP_TABLE_H
#define KYP_PROGRAMS_KYP_TABLE_H

#include <string>
#include <vector>

namespace kyptool {

using Row = std::vector<std::string>;

// One line a row, each column as wide as its widest cell. Below a heading, numbers stand on the
// right, and a column without any word is left out. Cells are printable.
std::string table_text(Row const& heading, std::vector<Row> const& rows);

// Columns that `text` takes on a screen: its UTF-8 characters.
size_t width_of(std::string const& text);

}  // namespace kyptool

#endif
