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

/// What an application does with one device in one cycle: `buffer` holds the input that was just taken, or takes the
/// output to be played one cycle later; its hostTime() is when. `sampleTime` counts the runner's frames. Called where
/// IO runs: it must keep the real-time rules, and not throw, which ends the process.
using DXRIOBlock = CXBlock<void(uint64_t sampleTime, DXRBuffer& buffer)>;

/// One device in one direction in a runner: the device, the channels that are wanted of it, and the application's
/// block. While IO runs it owns the buffer that the block sees, interleaved, a channel for each that is wanted.
///
/// An input node fills its buffer from the device and then calls the block; an output node copies its buffer to the
/// device and then calls the block, which fills it for the next cycle. So what is played is one buffer late, and
/// every output of a runner is late by the same.
/// Threads:   what never changes (device, channels, ioblock, description) any; the rest as work of the runner's queue,
///            to which a cycle counts.
/// Real time: performIOWithSampleTime. Starting, stopping and usageMap allocate.
/// Owns:      the device, the block, the buffer. The runner only weakly: it owns its nodes.
/// Fails:     without an IO block the node does nothing. Channels that the device lacks have a place in the buffer and no
///            source.
class DXR_EXPORT DXRDeviceNode : public DXRConverterNode {
public:
    using Channels = std::vector<uint32_t>;                   ///< numbers from 1
    static constexpr uint32_t maxFrames = 1U << 20;           ///< of a cycle; keeps allocations bounded
    static constexpr uint64_t maxSamples = uint64_t{1} << 26; ///< of a buffer: a quarter of a gigabyte

    /// A node of the class that fits the device: a DXRDeviceAggregateNode for an aggregate. Null without a device.
    /// Without `channels` it takes the device's preferred stereo channels.
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

    /// The UIDs of the devices that it takes to run this one: its own.
    virtual std::vector<std::string> deviceUIDs() const;
    /// Whether it has a block and its device is connected.
    bool isViable() const;
    /// The context channels in use, from 1, in the order they were first asked for; empty when stopped.
    Channels usageMap() const override { return _usageMap; }

    /// Makes the buffer, of `frameCount` frames at `sampleRate` Hz. `channelMap` says for each device channel, from 1,
    /// which context channel carries it, from 1; 0 for none.
    /// False when the buffer cannot be made: more than maxSamples, or no memory.
    [[nodiscard]] bool startIOWithSampleRate(double sampleRate, uint32_t frameCount,
                                             std::span<const uint32_t> channelMap);
    /// One cycle: copies, and calls the block. `samples` has an entry for every context channel; without it an input
    /// node hears silence and an output node is not heard.
    void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                 uint64_t hostTime) noexcept override CX_REALTIME;
    void stopIO();
    /// Until it stops, the buffer's hostTime() is this many host ticks after the cycle's, before it if negative.
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
    const bool _isInput; // the device's, which asks under a lock
    const DXRIOBlock _ioblock;
    // Of the running node: a number for each channel of the buffer, as in startIOWithSampleRate.
    std::optional<Channels> _channelMap;
    Channels _usageMap;
    CXRef<DXRBuffer> _buffer;
    int64_t _hostTimeOffset = 0; // host ticks
    const Channels _channels;
    CXWeak<DXRDeviceRunner> _runner;
};

/// The nodes of a runner, in order of registration: [0] input, [1] output.
using DXRDeviceNodes = std::array<std::vector<CXRef<DXRDeviceNode>>, 2>;
