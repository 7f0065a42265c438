#pragma once

#include "Terminal.h"

/// A table that is fitted to the terminal's width: columns with a minimum width are shrunk; if that does not
/// suffice, columns are left out, lowest priority first.
class Table {
public:
    struct Column {
        std::string title;
        size_t minWidth = 0;   ///< longer cells may be cut to this; 0: never cut
        bool isNumber = false; ///< aligned to the right
        int priority = 0;      ///< the lowest is left out first
    };
    using Cells = std::vector<std::string>;

    explicit Table(std::vector<Column> columns) : _columns(std::move(columns)) {}

    /// Adds a row of printable `cells`, one for each column.
    void add(Cells cells, Style style = Style::Plain) { _rows.push_back({std::move(cells), "", style}); }
    /// Removes the last column and shows its cells on a second line under each row.
    void moveLastColumnToNotes()
    {
        _columns.pop_back();
        for (Row& row : _rows) {
            row.note = "      " + row.cells.back();
            row.cells.pop_back();
        }
    }
    size_t naturalWidth() const { return _totalWidth(_placeNaturally()); }
    /// A line of titles and then the rows, each at most `width` columns wide.
    std::vector<std::string> lines(size_t width, const Terminal& terminal) const;

private:
    struct Row {
        Cells cells;
        std::string note;
        Style style;
    };
    struct Placed {
        const Column* column;
        size_t index, width, minWidth;
    };
    static size_t _totalWidth(const std::vector<Placed>& placed, size_t Placed::*width = &Placed::width);
    std::vector<Placed> _placeNaturally() const;
    std::vector<Placed> _place(size_t width) const;

    std::vector<Column> _columns;
    std::vector<Row> _rows;
};
