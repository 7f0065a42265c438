#include "DeviceTable.h"

#include "DisplayText.h"
#include "Table.h"
#include "TextFormat.h"

namespace {

std::string channelsText(const DirectionReport& direction)
{
    return direction.channelCount == 0 ? "-" : std::to_string(direction.channelCount);
}

/// The volume of the direction users turn: the output's, else the input's.
std::string volumeText(const DeviceReport& device)
{
    const HALDirection shown =
        device[HALDirection::Output].channelCount > 0 ? HALDirection::Output : HALDirection::Input;
    const DirectionReport& direction = device[shown];
    if (direction.isMuted.value_or(false))
        return "muted";
    const std::optional<float> volume = direction.shownVolume();
    return volume ? formatPercent(double{*volume}) : "-";
}

std::string defaultText(const DeviceReport& device)
{
    const DirectionReport& output = device[HALDirection::Output];
    std::string text = device[HALDirection::Input].isDefault ? "in" : "";
    const auto add = [&text](const char* mark) { text += (text.empty() ? "" : "+") + std::string(mark); };
    if (output.isDefault)
        add("out");
    if (output.isDefaultSystem)
        add("sys");
    return text;
}

} // namespace

std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal)
{
    constexpr size_t minName = 12;
    Table table({{"NAME", minName, false, 9},
                 {"VIA", 4, false, 3},
                 {"IN", 0, true, 7},
                 {"OUT", 0, true, 8},
                 {"RATE", 0, true, 6},
                 {"VOLUME", 0, true, 5},
                 {"DEFAULT", 0, false, 4},
                 {"UID", minName, false, 1}});
    for (const DeviceReport& device : devices) {
        const std::string name = singleLine(device.displayName());
        const std::string uid = singleLine(device.uid);
        Table::Row row;
        row.cells = {name.empty() ? "(no name)" : name,
                     singleLine(device.transportName()),
                     channelsText(device[HALDirection::Input]),
                     channelsText(device[HALDirection::Output]),
                     formatRate(device.sampleRate),
                     volumeText(device),
                     defaultText(device),
                     uid};
        row.style = device.isHidden ? Style::Dim : Style::Plain;
        table.add(row);
    }
    if (table.naturalWidth() > width)
        table.moveLastColumnToNotes();
    return table.lines(width, terminal);
}
