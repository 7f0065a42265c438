#include "Table.h"

#include "DisplayText.h"

#include <algorithm>

namespace {

constexpr size_t gap = 2; // columns between two columns
constexpr const char* noteIndent = "      ";

std::string withoutTrailingSpaces(std::string text)
{
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

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
    size_t width = 0;
    for (const Placed& column : _placeNaturally())
        width += column.width + (width == 0 ? 0 : gap);
    return width;
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
    const auto minOf = [this](const Placed& column) {
        const size_t min = _columns[column.index].minWidth;
        return min == 0 ? column.width : std::min(min, column.width);
    };
    const auto total = [](const std::vector<Placed>& columns, auto widthOf) {
        size_t sum = columns.empty() ? 0 : gap * (columns.size() - 1);
        for (const Placed& column : columns)
            sum += widthOf(column);
        return sum;
    };
    while (placed.size() > 1 && total(placed, minOf) > width)
        placed.erase(std::min_element(placed.begin(), placed.end(), [this](const Placed& a, const Placed& b) {
            return _columns[a.index].priority < _columns[b.index].priority;
        }));
    // What is still too much is taken from the widest column that can give.
    const auto widthOf = [](const Placed& column) { return column.width; };
    while (total(placed, widthOf) > width) {
        Placed* widest = nullptr;
        for (Placed& column : placed)
            if (column.width > minOf(column) && (!widest || column.width > widest->width))
                widest = &column;
        if (!widest)
            break;
        const size_t excess = total(placed, widthOf) - width;
        widest->width -= std::min(excess, widest->width - minOf(*widest));
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
    return withoutTrailingSpaces(line);
}
