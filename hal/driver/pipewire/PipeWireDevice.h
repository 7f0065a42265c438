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

/// IO that a device takes part in: the device's interface to a PipeWireRun.
/// Threads: the loop's.
class PipeWireDeviceRun {
public:
    virtual const PipeWireDeviceIO::WantedTiming& wantedTiming() const noexcept = 0;
    /// Asks the graph for another rate or cycle length.
    virtual void setWantedTiming(const PipeWireDeviceIO::WantedTiming& wanted) = 0;
    virtual void deviceChanged(const PipeWireDevice& device) = 0; ///< the device's ports may have changed
    virtual void deviceDisappears(const PipeWireDevice& device) = 0;
    virtual bool hasStarted() const noexcept = 0; ///< every member that was present then has had cycles
    virtual bool isStalled(const PipeWireDevice& device) const = 0;
    virtual PipeWireClockSeen clock() const noexcept = 0;

protected:
    ~PipeWireDeviceRun() = default;
};

/// One device of the HAL: the server's nodes that it consists of, the values that clients have asked for, and
/// its IO. The monitor of a sink is a separate device, hidden and without a volume.
/// Threads: the loop's.
class PipeWireDevice {
public:
    /// The nodes of a device, by serial; 0: none. For a duplex node, sink and source are equal.
    struct Parts {
        uint64_t sink = 0;
        uint64_t source = 0;
        uint64_t card = 0;
        bool isWholeCard = false; ///< a sink and a source of one card
        bool isMonitor = false;   ///< `source` is a sink, and the input is what is played to it
        friend bool operator==(const Parts&, const Parts&) = default;
        friend auto operator<=>(const Parts&, const Parts&) = default;
    };
    /// The volume of one direction and the object that holds it.
    struct VolumePlace {
        PipeWireVolumeProps props;
        std::optional<uint32_t> route; ///< the card's route that holds it; nullopt: the node does
        uint32_t cardDevice = 0;       ///< the card's sub-device; valid with `route`
    };

    /// Amplitudes that were sent and that the server may not show yet.
    struct SentVolume {
        std::optional<uint32_t> route;
        std::vector<float> amplitudes;
    };

    PipeWireDevice(const PipeWireMirror& mirror, const Parts& parts, std::string uid, std::string sourceName,
                   std::string sinkName);

    const Parts& parts() const noexcept { return _parts; }
    const std::string& uid() const noexcept { return _uid; }
    /// The server's name of the node for the direction; empty without a node.
    const std::string& nodeName(HALDirection direction) const
    {
        return _nodeNames[static_cast<size_t>(direction)];
    }

    /// Whether all nodes of the device still exist. A device outlives its removed node until the batch of
    /// changes that the removal is part of has been reported.
    bool isPresent() const;
    /// The current state of the device; empty if it is not present.
    HALDeviceState describe(const PipeWireClockSettings& settings);
    /// Null if the device has no node in the direction or the node has disappeared.
    PipeWireNode* node(HALDirection direction) const;
    std::optional<VolumePlace> volumePlace(HALDirection direction) const;
    /// The volume as of the last describe().
    const HALVolume& volume(HALDirection direction) const { return _volumes[static_cast<size_t>(direction)]; }
    /// The card's sub-device for the direction; nullopt for a monitor, or if the node has none.
    std::optional<uint32_t> cardDevice(HALDirection direction) const;
    PipeWireCard* card() const { return _mirror.card(_parts.card); }
    PipeWireEnds ends() const;
    PipeWireChannels channels() const;
    /// Devices with the same group domain can run in one cycle. 0: the device can run with no other.
    uint32_t groupDomain() const;
    /// The timing that IO asks of the graph. Ignores values forced by other clients: they are temporary.
    PipeWireDeviceIO::WantedTiming wantedTiming(const PipeWireClockSettings& settings) const;
    /// Whether the device supports `rate` (Hz) and no client has asked for another.
    bool canRunAt(double rate, const PipeWireClockSettings& settings) const;
    /// The longest possible cycle, in frames.
    uint32_t maxFrames(const PipeWireClockSettings& settings) const;

    static uint32_t sourceID(const PipeWireRoute& route) noexcept { return route.index + 1; } ///< never 0

    CXRef<HALDeviceDriver> driver;            ///< identifies the device to the model; null until reported
    std::optional<double> wantedRate;         ///< Hz; set by a client of this process
    std::optional<uint32_t> wantedFrameCount; ///< set by a client of this process
    /// By direction; held by the writes that wait for their effect.
    std::array<std::weak_ptr<SentVolume>, 2> sentVolumes;
    PipeWireTimeline timeline;
    std::vector<PipeWireDeviceRun*> runs; ///< the device's own and those of its groups; not owned
    bool isEndingIO = false;              ///< our IO has ended, but the node still reports that it runs
    void joinRun(PipeWireDeviceRun& run);
    void leaveRun(const PipeWireDeviceRun& run) { std::erase(runs, &run); }

private:
    /// What other clients do with the nodes.
    struct Use {
        bool isRunning = false;
        std::array<std::optional<uint32_t>, 2> rates; // by direction
    };

    Use _otherUse() const;
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
    // Other clients' use before our IO, which hides it. Kept until our IO stalls, so that neither a start
    // that fails nor a start or stop beside another client changes whether the device runs.
    Use _useBefore;
};
