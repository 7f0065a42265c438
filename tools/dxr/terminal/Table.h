#pragma once

#include "Terminal.h"

#include <string>
#include <vector>

/// Rows of text in aligned columns that fit the terminal: columns that may shrink do, and those that matter
/// least are left out when there is no room at all. Threads: one.
class Table {
public:
    struct Column {
        std::string title;
        size_t minWidth = 0;   ///< columns it needs to be of use; what is longer is cut with an ellipsis
        bool isNumber = false; ///< stands to the right
        int priority = 0;      ///< the lowest goes first when there is no room
    };
    struct Row {
        std::vector<std::string> cells; ///< printable, as many as there are columns
        std::string note;               ///< a second line under the row; empty for none
        Style style = Style::Plain;
    };

    explicit Table(std::vector<Column> columns) : _columns(std::move(columns)) {}

    /// Moves the cells of the last column to a second line under each row, and takes the column away.
    void moveLastColumnToNotes();
    void add(Row row) { _rows.push_back(std::move(row)); }
    /// The columns of the longest line when nothing is cut.
    size_t naturalWidth() const;
    /// The table, line by line, none longer than `width` columns. The first line is the titles.
    std::vector<std::string> lines(size_t width, const Terminal& terminal) const;

private:
    struct Placed {
        size_t index;
        size_t width;
    };
    std::vector<Placed> _placeNaturally() const;
    std::vector<Placed> _place(size_t width) const;
    std::string _line(const std::vector<Placed>& placed, const std::vector<std::string>& cells) const;

    std::vector<Column> _columns;
    std::vector<Row> _rows;
};
