#include "DeviceTable.h"

#include "Table.h"
#include "Text.h"

namespace {

std::string channelsText(const DirectionReport& direction)
{
    return direction.channelCount == 0 ? "-" : std::to_string(direction.channelCount);
}

/// The volume of the output if the device has one, else of the input.
std::string volumeText(const DeviceReport& device)
{
    const DirectionReport& direction = device[device.direction(std::nullopt)];
    if (direction.isMuted.value_or(false))
        return "muted";
    const std::optional<float> volume = direction.shownVolume();
    return volume ? formatPercent(double{*volume}) : "-";
}

std::string defaultText(const DeviceReport& device)
{
    const DirectionReport& output = device[HALDirection::Output];
    std::vector<std::string> marks;
    if (device[HALDirection::Input].isDefault)
        marks.emplace_back("in");
    if (output.isDefault)
        marks.emplace_back("out");
    if (output.isDefaultSystem)
        marks.emplace_back("sys");
    return joined(marks, "+");
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
        table.add({name.empty() ? "(no name)" : name, singleLine(device.transportName()),
                   channelsText(device[HALDirection::Input]), channelsText(device[HALDirection::Output]),
                   formatRate(device.sampleRate), volumeText(device), defaultText(device),
                   singleLine(device.uid)},
                  device.isHidden ? Style::Dim : Style::Plain);
    }
    if (table.naturalWidth() > width)
        table.moveLastColumnToNotes();
    return table.lines(width, terminal);
}
