#pragma once

#include "DXRBuffer.h"
#include "DXRConverterNode.h"
#include "DXRDevice.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

class DXRDeviceRunner;

/// The application's callback for one device in one cycle: `buffer` contains the input just captured, or
/// receives the output to be played one cycle later; its hostTime() is the time of its first frame.
/// `sampleTime` counts the runner's frames. Called in real time, on a device's IO thread or by the timer: it
/// must not lock, allocate or wait. It must not throw: an exception ends the process.
using DXRIOBlock = CXBlock<void(uint64_t sampleTime, DXRBuffer& buffer)>;

/// One device in one direction in a runner: the device, the channels requested of it, and the application's
/// block. While IO runs it owns the interleaved buffer passed to the block, with one channel for each
/// requested channel.
///
/// An input node fills its buffer from the device and then calls the block; an output node copies its buffer
/// to the device and then calls the block, which fills it for the next cycle. So output is played one buffer
/// late, equally for all outputs of a runner.
/// Threads:   any for what never changes (device, channels, ioblock, description); the rest as work of the
///            runner's queue, which includes cycles.
/// Real time: performIOWithSampleTime. Starting, stopping and usageMap allocate.
/// Owns:      the device, the block, the buffer. Holds the runner, which owns the node, weakly.
/// Fails:     without an IO block the node does nothing. Channels that the device lacks are in the buffer but
///            are not connected.
class DXR_EXPORT DXRDeviceNode : public DXRConverterNode {
public:
    using Channels = std::vector<uint32_t>;                   ///< from 1
    static constexpr uint32_t maxFrames = 1U << 20;           ///< of a cycle; keeps allocations bounded
    static constexpr uint64_t maxSamples = uint64_t{1} << 26; ///< of a buffer: a quarter of a gigabyte

    /// A node of the class that fits the device: a DXRDeviceAggregateNode for an aggregate. Returns null if
    /// `device` is null. Without `channels`, the node uses the device's preferred stereo channels.
    static CXRef<DXRDeviceNode> nodeWithDevice(const CXRef<DXRDevice>& device,
                                               const std::optional<Channels>& channels,
                                               const DXRIOBlock& ioblock);
    static CXRef<DXRDeviceNode> initWithDevice(const CXRef<DXRDevice>& device,
                                               const std::optional<Channels>& channels,
                                               const DXRIOBlock& ioblock);

    const CXRef<DXRDevice>& device() const noexcept { return _device; }
    bool isInput() const noexcept { return _isInput; }
    const Channels& channels() const noexcept { return _channels; }
    const DXRIOBlock& ioblock() const noexcept { return _ioblock; }
    CXRef<DXRDeviceRunner> runner() const;
    void setRunner(const CXRef<DXRDeviceRunner>& runner);

    /// The UIDs of the devices needed to run the node: here only the node's own device.
    virtual std::vector<std::string> deviceUIDs() const;
    /// Whether the node has a block and its device is connected.
    bool isViable() const;
    /// The context channels in use, from 1, in the order of their first use; empty while stopped.
    Channels usageMap() const override { return _usageMap; }

    /// Allocates the buffer: `frameCount` frames at `sampleRate` Hz. `channelMap` has for each device
    /// channel, from 1, the number, from 1, of the context channel that carries it; 0 for none. Returns false
    /// if the buffer would exceed maxSamples or memory is exhausted.
    [[nodiscard]] bool startIOWithSampleRate(double sampleRate, uint32_t frameCount,
                                             std::span<const uint32_t> channelMap);
    /// One cycle: copies, and calls the block. `samples` has an entry for every context channel; if it is
    /// null, an input node receives silence and an output node's samples are discarded.
    void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                 uint64_t hostTime) noexcept override CX_REALTIME;
    void stopIO();
    /// Until the node stops, adds this many host ticks, negative for earlier, to the cycle's host time to get
    /// the buffer's hostTime().
    void setHostTimeOffset(int64_t ticks) noexcept { _hostTimeOffset = ticks; }

    /// "<DXRDeviceNode: address, input, UID>".
    std::string description() const override;

protected:
    DXRDeviceNode(const CXRef<DXRDevice>& device, const std::optional<Channels>& channels,
                  const DXRIOBlock& ioblock);
    ~DXRDeviceNode() override;

    virtual const char* className() const { return "DXRDeviceNode"; }

private:
    void _callBlock(uint64_t sampleTime) noexcept CX_REALTIME;

    const CXRef<DXRDevice> _device;
    const bool _isInput; // a copy of the device's, whose getter takes a lock
    const DXRIOBlock _ioblock;
    // While the node runs: the context channel for each channel of the buffer, as in startIOWithSampleRate.
    std::optional<Channels> _channelMap;
    Channels _usageMap;
    CXRef<DXRBuffer> _buffer;
    int64_t _hostTimeOffset = 0; // host ticks
    const Channels _channels;
    CXWeak<DXRDeviceRunner> _runner;
};

/// The nodes of a runner, in order of registration: [0] input, [1] output.
using DXRDeviceNodes = std::array<std::vector<CXRef<DXRDeviceNode>>, 2>;
