#pragma once

#include "Terminal.h"

#include <string>
#include <vector>

/// A table that is fitted to the terminal's width: columns with a minimum width are shrunk; if that does not
/// suffice, columns are left out, lowest priority first.
/// Threads: one at a time.
class Table {
public:
    struct Column {
        std::string title;
        size_t minWidth = 0;   ///< longer cells may be cut to this; 0: never cut
        bool isNumber = false; ///< aligned to the right
        int priority = 0;      ///< the lowest is left out first
    };
    struct Row {
        std::vector<std::string> cells; ///< printable, one for each column
        std::string note;               ///< a second line under the row; empty: none
        Style style = Style::Plain;
    };

    explicit Table(std::vector<Column> columns) : _columns(std::move(columns)) {}

    void add(Row row) { _rows.push_back(std::move(row)); }
    /// Removes the last column and turns its cells into the rows' notes.
    void moveLastColumnToNotes();
    /// The width at which nothing is cut.
    size_t naturalWidth() const;
    /// A line of titles and then the rows, each at most `width` columns wide.
    std::vector<std::string> lines(size_t width, const Terminal& terminal) const;

private:
    struct Placed {
        size_t index;
        size_t width;
    };
    static size_t _totalWidth(const std::vector<Placed>& placed);
    size_t _minWidth(const Placed& column) const;
    std::vector<Placed> _placeNaturally() const;
    std::vector<Placed> _place(size_t width) const;
    std::string _line(const std::vector<Placed>& placed, const std::vector<std::string>& cells) const;

    std::vector<Column> _columns;
    std::vector<Row> _rows;
};
