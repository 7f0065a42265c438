#pragma once

#include <array>
#include <dxr/AudioHardware.h>
#include <dxr/CXPlist.h>
#include <dxr/DXRDevice.h>
#include <dxr/HALDirection.h>
#include <optional>
#include <string>
#include <vector>

/// What a device says of itself in one direction.
struct DirectionReport {
    CXRef<DXRDevice> device; ///< the manager's; none when the manager does not know it (yet)
    std::string displayName; ///< devices of the same name have a number in it
    struct Stream {
        AudioObjectID objectID = kAudioObjectUnknown;
        uint32_t channelCount = 0;
    };
    struct Source {
        uint32_t sourceID = 0;
        std::string name;
    };

    uint32_t channelCount = 0;
    std::vector<std::string> channelNames; ///< [c - 1] is channel c, "Front Left"; empty: none has a name
    std::vector<Stream> streams;
    std::vector<Source> sources;
    std::optional<uint32_t> currentSource; ///< none: the direction has no sources
    std::optional<float> volume;           ///< of the main element, scalar 0..1; none: no control
    std::vector<std::optional<float>>
        channelVolumes;          ///< [c - 1] is channel c; empty: no channel has a control
    std::optional<bool> isMuted; ///< none: no control
    std::optional<std::array<uint32_t, 2>> stereoChannels; ///< from 1
    uint32_t latencyFrames = 0;
    uint32_t safetyOffsetFrames = 0;
    bool isDefault = false;
    bool isDefaultSystem = false; ///< output only

    /// The main volume, else that of the loudest channel; none without any control.
    std::optional<float> shownVolume() const;
    /// The name of the current source; empty when there is none.
    std::string currentSourceName() const;
};

/// All that a device says of itself, as of one moment. Texts are as the device gave them: print them by
/// singleLine(). Threads: any.
struct DeviceReport {
    AudioObjectID deviceID = kAudioObjectUnknown;
    std::string uid;
    std::string name;
    std::string manufacturer; ///< empty: it does not say
    std::string modelUID;     ///< empty: it does not say
    uint32_t transportType = kAudioDeviceTransportTypeUnknown;
    bool isHidden = false;
    bool isRunning = false;
    uint32_t clockDomain = 0;
    double sampleRate = 0.0;       ///< nominal, Hz
    double actualSampleRate = 0.0; ///< Hz; 0: it does not say
    std::vector<AudioValueRange> sampleRates;
    uint32_t bufferFrameSize = 0;
    AudioValueRange bufferFrameSizeRange{};
    std::array<DirectionReport, 2> directions; ///< by HALDirection

    /// The device as it is now; nothing when it is gone.
    static std::optional<DeviceReport> read(AudioObjectID deviceID);
    /// Every device there is, by ID; those that hide only on demand.
    enum class Hidden { No, Yes };
    static std::vector<DeviceReport> readAll(Hidden hidden);

    const DirectionReport& operator[](HALDirection direction) const
    {
        return directions[static_cast<size_t>(direction)];
    }
    /// The name to show, which differs from those of other devices.
    const std::string& displayName() const;
    /// The device object of the direction; where that is open, the output's if there is one. Throws ToolFailure.
    CXRef<DXRDevice> device(std::optional<HALDirection> direction) const;
    /// Whether it is the private device that a runner has made of several, in any process.
    bool isOfRunner() const { return uid.starts_with("DXR:"); }
    /// The display name, made printable and cut to fit into a line among other things.
    std::string shortName() const;
    /// "usb", "built-in", …; the code's four characters for one that has no name.
    std::string transportName() const;
    /// As `dxr list --json` prints it.
    CXPlist json() const;
};

/// The version of everything that is printed as JSON (docs/json.md); raised when a key goes or changes its meaning.
inline constexpr int jsonSchema = 1;

/// JSON text: bytes that are no UTF-8 are replaced, and on a terminal nothing but ASCII is printed.
std::string jsonText(const CXPlist& json, int indent, bool onTerminal);
