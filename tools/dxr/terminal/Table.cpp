#include "Table.h"

#include <algorithm>

constexpr size_t gap = 2; // columns between two columns

std::vector<std::string> Table::lines(size_t width, const Terminal& terminal) const
{
    const std::vector<Placed> placed = _place(width);
    std::vector<std::string> lines;
    const auto add = [&](const Cells& cells, Style style) {
        std::string line;
        for (const Placed& place : placed)
            line += (line.empty() ? "" : std::string(gap, ' ')) +
                    (place.column->isNumber ? fitRight : fitLeft)(cells[place.index], place.width);
        line.resize(line.find_last_not_of(' ') + 1);
        lines.push_back(terminal.styled(clipToWidth(line, width), style));
    };
    Cells titles;
    for (const Column& column : _columns)
        titles.push_back(column.title);
    add(titles, Style::Bold);
    for (const Row& row : _rows) {
        add(row.cells, row.style);
        if (!row.note.empty())
            lines.push_back(terminal.styled(clipToWidth(row.note, width), Style::Dim));
    }
    return lines;
}

size_t Table::_totalWidth(const std::vector<Placed>& placed, size_t Placed::*width)
{
    size_t total = placed.empty() ? 0 : gap * (placed.size() - 1);
    for (const Placed& place : placed)
        total += place.*width;
    return total;
}

std::vector<Table::Placed> Table::_placeNaturally() const
{
    std::vector<Placed> placed;
    for (const Column& column : _columns) {
        const size_t index = placed.size();
        size_t natural = displayWidth(column.title);
        for (const Row& row : _rows)
            natural = std::max(natural, displayWidth(row.cells[index]));
        const size_t min = column.minWidth == 0 ? natural : std::min(column.minWidth, natural);
        placed.push_back({&column, index, natural, min});
    }
    return placed;
}

std::vector<Table::Placed> Table::_place(size_t width) const
{
    std::vector<Placed> placed = _placeNaturally();
    const auto shrinkable = [](const Placed& place) { return place.width - place.minWidth; };
    while (placed.size() > 1 && _totalWidth(placed, &Placed::minWidth) > width)
        placed.erase(
            std::ranges::min_element(placed, {}, [](const Placed& place) { return place.column->priority; }));
    while (_totalWidth(placed) > width) { // shrink the widest column that can be shrunk
        const auto widest = std::ranges::max_element(
            placed, {}, [&](const Placed& place) { return shrinkable(place) > 0 ? place.width : 0; });
        if (shrinkable(*widest) == 0)
            break;
        widest->width -= std::min(_totalWidth(placed) - width, shrinkable(*widest));
    }
    return placed;
}
