#pragma once

#include "Terminal.h"

#include <array>
#include <dxr/AudioHardware.h>
#include <dxr/CXPlist.h>
#include <dxr/DXRDevice.h>
#include <dxr/HALDirection.h>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct DirectionReport {
    struct Stream {
        AudioObjectID objectID;
        uint32_t channelCount;
    };
    struct Source {
        uint32_t sourceID;
        std::string name;
    };

    CXRef<DXRDevice> device; ///< the manager's object; null if the manager does not know the device (yet)
    std::string displayName; ///< numbered if several devices have the same name
    uint32_t channelCount = 0;
    std::vector<std::string> channelNames; ///< [c - 1] of channel c, "Front Left"; empty if none has a name
    std::vector<Stream> streams;
    std::vector<Source> sources;
    std::optional<uint32_t> currentSource; ///< null: no sources
    std::optional<float> volume;           ///< of the main element, 0 to 1; null: no volume control
    std::vector<std::optional<float>>
        channelVolumes;          ///< [c - 1] of channel c; empty: no channel has a volume control
    std::optional<bool> isMuted; ///< null: no mute control
    std::optional<std::array<uint32_t, 2>> stereoChannels; ///< channel numbers from 1
    uint32_t latencyFrames = 0;
    uint32_t safetyOffsetFrames = 0;
    bool isDefault = false;
    bool isDefaultSystem = false; ///< output only

    std::string currentSourceName() const
    {
        for (const Source& source : sources)
            if (currentSource == source.sourceID)
                return source.name;
        return {};
    }
};

/// Everything about a device, read at one moment. Texts are not printable: see singleLine().
struct DeviceReport {
    AudioObjectID deviceID = kAudioObjectUnknown;
    std::string uid;
    std::string name;
    std::string manufacturer; ///< empty: unknown
    std::string modelUID;     ///< empty: unknown
    uint32_t transportType = kAudioDeviceTransportTypeUnknown;
    bool isHidden = false;
    bool isRunning = false;
    uint32_t clockDomain = 0;
    double sampleRate = 0.0;       ///< nominal, Hz
    double actualSampleRate = 0.0; ///< Hz; 0: unknown
    std::vector<AudioValueRange> sampleRates;
    uint32_t bufferFrameSize = 0;
    AudioValueRange bufferFrameSizeRange{};
    std::array<DirectionReport, 2> directions; ///< by HALDirection

    /// Reads the device's properties; null if it was disconnected.
    static std::optional<DeviceReport> read(AudioObjectID deviceID);
    enum class Hidden { No, Yes };
    /// Reads every device, ordered by ID.
    static std::vector<DeviceReport> readAll(Hidden hidden);

    const DirectionReport& operator[](HALDirection direction) const
    {
        return directions[static_cast<size_t>(direction)];
    }
    /// Returns `chosen` if given, else Output if the device has output channels, else Input.
    HALDirection direction(std::optional<HALDirection> chosen) const
    {
        return chosen.value_or((*this)[HALDirection::Output].channelCount > 0 ? HALDirection::Output
                                                                              : HALDirection::Input);
    }
    /// The name to show users; unique among the devices.
    const std::string& displayName() const
    {
        for (const HALDirection direction : {HALDirection::Output, HALDirection::Input})
            if ((*this)[direction].device)
                return (*this)[direction].displayName;
        return name;
    }
    /// The display name, printable and short enough for a line of text.
    std::string shortName() const
    {
        const std::string shown = shortText(displayName(), 40);
        return shown.empty() ? "(no name)" : shown;
    }
    /// The device object of direction(chosen). Throws ToolFailure if there is none.
    CXRef<DXRDevice> device(std::optional<HALDirection> chosen) const;
    /// Whether the device is the private aggregate of a runner in any process.
    bool isOfRunner() const { return uid.starts_with("DXR:"); }
    /// "usb", "built-in", …; for an unknown transport type, its four characters.
    std::string transportName() const;
    CXPlist json() const;
};

/// The version of the JSON output (docs/json.md); incremented when a key is removed or changes its meaning.
inline constexpr int jsonSchema = 1;

/// Returns the array of what `convert`, a function or member function, returns for each of the items.
template <class Items, class Convert> CXPlist arrayOf(const Items& items, Convert convert)
{
    CXPlist array = CXPlist::array();
    for (const auto& item : items)
        array.push_back(std::invoke(convert, item));
    return array;
}

/// Returns `json` as text. Bytes that are not UTF-8 are replaced. On a terminal, the text is plain ASCII.
std::string jsonText(const CXPlist& json, int indent, bool onTerminal);

/// Returns the table of `dxr list` as lines of up to `width` columns.
std::vector<std::string> deviceTable(const std::vector<DeviceReport>& devices, size_t width,
                                     const Terminal& terminal);
