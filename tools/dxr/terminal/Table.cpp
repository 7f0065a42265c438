#include "Table.h"

#include "DisplayText.h"

#include <algorithm>

namespace {

constexpr size_t gap = 2; // columns between two columns
constexpr const char* noteIndent = "      ";

} // namespace

void Table::moveLastColumnToNotes()
{
    _columns.pop_back();
    for (Row& row : _rows) {
        row.note = noteIndent + row.cells.back();
        row.cells.pop_back();
    }
}

std::vector<std::string> Table::lines(size_t width, const Terminal& terminal) const
{
    const std::vector<Placed> placed = _place(width);
    std::vector<std::string> titles;
    for (const Column& column : _columns)
        titles.push_back(column.title);
    std::vector<std::string> lines{terminal.styled(clipToWidth(_line(placed, titles), width), Style::Bold)};
    for (const Row& row : _rows) {
        lines.push_back(terminal.styled(clipToWidth(_line(placed, row.cells), width), row.style));
        if (!row.note.empty())
            lines.push_back(terminal.styled(clipToWidth(row.note, width), Style::Dim));
    }
    return lines;
}

size_t Table::naturalWidth() const
{
    return _totalWidth(_placeNaturally());
}

size_t Table::_totalWidth(const std::vector<Placed>& placed)
{
    size_t width = placed.empty() ? 0 : gap * (placed.size() - 1);
    for (const Placed& column : placed)
        width += column.width;
    return width;
}

size_t Table::_minWidth(const Placed& column) const
{
    const size_t min = _columns[column.index].minWidth;
    return min == 0 ? column.width : std::min(min, column.width);
}

std::vector<Table::Placed> Table::_placeNaturally() const
{
    std::vector<Placed> placed;
    for (size_t i = 0; i < _columns.size(); ++i) {
        size_t natural = displayWidth(_columns[i].title);
        for (const Row& row : _rows)
            natural = std::max(natural, displayWidth(row.cells[i]));
        placed.push_back({i, natural});
    }
    return placed;
}

std::vector<Table::Placed> Table::_place(size_t width) const
{
    std::vector<Placed> placed = _placeNaturally();
    const auto exceedsEvenShrunk = [&] {
        size_t shrinkable = 0;
        for (const Placed& column : placed)
            shrinkable += column.width - _minWidth(column);
        return _totalWidth(placed) > width + shrinkable;
    };
    while (placed.size() > 1 && exceedsEvenShrunk())
        placed.erase(std::ranges::min_element(
            placed, {}, [this](const Placed& column) { return _columns[column.index].priority; }));
    while (_totalWidth(placed) > width) { // shrink the widest column that can be shrunk
        const auto widest = std::ranges::max_element(placed, {}, [this](const Placed& column) {
            return column.width > _minWidth(column) ? column.width : 0;
        });
        const size_t shrinkable = widest->width - _minWidth(*widest);
        if (shrinkable == 0)
            break;
        widest->width -= std::min(_totalWidth(placed) - width, shrinkable);
    }
    return placed;
}

std::string Table::_line(const std::vector<Placed>& placed, const std::vector<std::string>& cells) const
{
    std::string line;
    for (const Placed& column : placed) {
        if (!line.empty())
            line.append(gap, ' ');
        const std::string& cell = cells[column.index];
        line += _columns[column.index].isNumber ? fitRight(cell, column.width) : fitLeft(cell, column.width);
    }
    return line.substr(0, line.find_last_not_of(' ') + 1);
}
