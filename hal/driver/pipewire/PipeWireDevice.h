#pragma once

#include "HALDeviceDriver.h"
#include "HALVolume.h"
#include "PipeWireDeviceIO.h"
#include "PipeWireMirror.h"
#include "PipeWireTimeline.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

class PipeWireDevice;

/// IO that a device takes part in, as the device sees it.
/// Threads: the loop's.
class PipeWireDeviceRun {
public:
    virtual const PipeWireDeviceIO::WantedTiming& wantedTiming() const noexcept = 0;
    /// Asks the graph for another rate or cycle length.
    virtual void setWantedTiming(const PipeWireDeviceIO::WantedTiming& wanted) = 0;
    virtual void deviceChanged(const PipeWireDevice& device) = 0; ///< its ports may have changed
    virtual void deviceDisappears(const PipeWireDevice& device) = 0;
    virtual bool isStalled(const PipeWireDevice& device) const = 0;
    virtual PipeWireClockSeen clock() const noexcept = 0;

protected:
    ~PipeWireDeviceRun() = default;
};

/// One device of the HAL: the nodes of the server that it is made of, what clients have asked of it, and its
/// IO. The monitor of a sink is a device of its own, hidden and without a volume.
/// Threads: the loop's.
class PipeWireDevice {
public:
    /// Which nodes a device is made of, by serial; 0 is none. Of a duplex node, both are the same.
    struct Parts {
        uint64_t sink = 0;
        uint64_t source = 0;
        uint64_t card = 0;
        bool isWholeCard = false; ///< a sink and a source of one card
        bool isMonitor = false;   ///< the input is what is played to the sink that is `source`
        friend bool operator==(const Parts&, const Parts&) = default;
        friend auto operator<=>(const Parts&, const Parts&) = default;
    };
    /// Where the volume of one direction is, and what it is.
    struct VolumePlace {
        PipeWireVolumeProps props;
        std::optional<uint32_t> route; ///< in the props of this route of the card; none: in the node's own
        uint32_t cardDevice = 0;       ///< the card's sub-device, with a route
    };

    PipeWireDevice(const PipeWireMirror& mirror, const Parts& parts, std::string uid, std::string sourceName,
                   std::string sinkName);

    const Parts& parts() const noexcept { return _parts; }
    const std::string& uid() const noexcept { return _uid; }
    /// What the server calls the node behind the direction; empty without one.
    const std::string& nodeName(HALDirection direction) const
    {
        return _nodeNames[static_cast<size_t>(direction)];
    }

    /// Whether every node it is made of still exists. Between a node's removal and the lot of changes it is
    /// part of, the device outlives it.
    bool isPresent() const;
    /// The state of the device now; an empty one when it is not present.
    HALDeviceState describe(const PipeWireClockSettings& settings);
    /// Null when the device has none in the direction, or it is gone.
    PipeWireNode* node(HALDirection direction) const;
    std::optional<VolumePlace> volumePlace(HALDirection direction) const;
    /// As last described.
    const HALVolume& volume(HALDirection direction) const { return _volumes[static_cast<size_t>(direction)]; }
    /// The card's sub-device behind the direction; nothing without a card that has routes.
    std::optional<uint32_t> cardDevice(HALDirection direction) const;
    PipeWireCard* card() const { return _mirror.card(_parts.card); }
    PipeWireEnds ends() const;
    PipeWireChannels channels() const;
    /// Devices of one group domain can run in one cycle. 0: with no other.
    uint32_t groupDomain() const;
    /// What IO on it asks of the graph. Other clients' forced values do not count: they pass.
    PipeWireDeviceIO::WantedTiming wantedTiming(const PipeWireClockSettings& settings) const;
    /// Whether it has the rate, and no client has asked for another.
    bool canRunAt(double rate, const PipeWireClockSettings& settings) const;
    /// The longest cycle that may come.
    uint32_t maxFrames(const PipeWireClockSettings& settings) const;

    static uint32_t sourceID(const PipeWireRoute& route) noexcept { return route.index + 1; } ///< 0 is none

    CXRef<HALDeviceDriver> driver;            ///< what the model knows it by; null before it is reported
    std::optional<double> wantedRate;         ///< Hz, chosen by a client of ours
    std::optional<uint32_t> wantedFrameCount; ///< chosen by a client of ours
    PipeWireTimeline timeline;
    std::vector<PipeWireDeviceRun*> runs; ///< of its own and of groups; not owned
    bool isEndingIO = false;              ///< the node still says that it runs, because of us
    void leaveRun(const PipeWireDeviceRun& run) { std::erase(runs, &run); }

private:
    std::vector<AudioValueRange> _sampleRates(const PipeWireClockSettings& settings) const;
    PipeWireClockSeen _runningClock() const;
    bool _isStalled() const;
    double _nominalRate(const PipeWireClockSettings& settings,
                        const std::vector<AudioValueRange>& rates) const;
    double _idleRate(const PipeWireClockSettings& settings, const std::vector<AudioValueRange>& rates) const;
    static double _defaultRate(const PipeWireClockSettings& settings,
                               const std::vector<AudioValueRange>& rates);
    uint32_t _frameCount(const PipeWireClockSettings& settings) const;
    HALDirectionState _describe(HALDirection direction, const HALDeviceState& device);
    void _describeRoutes(HALDirection direction, HALDirectionState& state) const;
    std::vector<const PipeWirePort*> _ports(HALDirection direction) const;
    uint32_t _clockDomain() const;

    const PipeWireMirror& _mirror;
    const Parts _parts;
    const std::string _uid;
    const std::array<std::string, 2> _nodeNames; // by direction
    std::array<HALVolume, 2> _volumes;           // by direction
};
