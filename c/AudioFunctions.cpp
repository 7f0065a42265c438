// The functions of sounds and runners.

#include "Arguments.h"
#include "DeviceHandles.h"
#include "Guard.h"
#include "Runner.h"
#include "Sound.h"
#include "Utf8.h"

#include <algorithm>
#include <cstring>

using namespace dxr_c;

namespace {

CXRef<Runner> runnerOf(const dxr_runner* handle)
{
    return Handles::shared().object<Runner>(handle, Kind::Runner);
}

CXRef<Sound> soundOf(const dxr_sound* handle)
{
    return Handles::shared().object<Sound>(handle, Kind::Sound);
}

/// The channels that a node requests; empty means the stereo pair.
std::optional<DXRDeviceRunner::Channels> channelsOf(const dxr_node& node)
{
    constexpr uint32_t maxChannel = 4096;
    if (node.channel_count == 0)
        return std::nullopt;
    require(node.channels, "node->channels");
    if (node.channel_count > maxChannel ||
        std::any_of(node.channels, node.channels + node.channel_count,
                    [](uint32_t channel) { return channel == 0 || channel > maxChannel; }))
        fail(DXR_ERROR_ARGUMENT, "node->channels has numbers, or is of a length, not from 1 to 4096");
    return DXRDeviceRunner::Channels(node.channels, node.channels + node.channel_count);
}

/// The IO block of a node.
DXRIOBlock blockOf(const dxr_node& node, Runner& runner, bool input, size_t channelCount)
{
    if ((node.io != nullptr) == (node.sound != nullptr))
        fail(DXR_ERROR_ARGUMENT, "one of node->io and node->sound is wanted");
    if (node.io)
        return runner.blockFor(node.io, node.user, input);
    const CXRef<Sound> sound = soundOf(node.sound);
    if (sound->buffer->channelCount() != channelCount)
        fail(DXR_ERROR_ARGUMENT, "the sound has " + std::to_string(sound->buffer->channelCount()) +
                                     " channels, the node " + std::to_string(channelCount));
    return
        [sound, input](uint64_t sampleTime, DXRBuffer& cycle) { sound->perform(sampleTime, cycle, input); };
}

void addNode(Runner& runner, const dxr_node& node)
{
    if ((node.device != nullptr) == (node.default_of != 0))
        fail(DXR_ERROR_ARGUMENT, "one of node->device and node->default_of is wanted");
    const CXRef<DXRDevice> device = node.device ? deviceOf(node.device) : nullptr;
    const bool input = device ? device->isInput() : isInput(node.default_of);
    const std::optional<DXRDeviceRunner::Channels> channels = channelsOf(node);
    const DXRIOBlock block = blockOf(node, runner, input, channels ? channels->size() : 2);
    using Direction = DXRDeviceRunner::Direction;
    const bool isAdded =
        device
            ? runner.runner->addDevice(device, channels, block)
            : runner.runner->addDefaultDevice(input ? Direction::Input : Direction::Output, channels, block);
    if (!isAdded)
        fail(DXR_ERROR_STATE,
             "the runner has this device, or cycles of so many frames and channels are too long");
}

void requireStopped(const Runner& runner)
{
    if (runner.runner->isRunning())
        fail(DXR_ERROR_STATE, "the runner runs");
}

} // namespace

extern "C" {

dxr_status dxr_sound_new(uint64_t frames, uint32_t channels, double sample_rate, int repeats,
                         dxr_sound** sound)
{
    return guarded(__func__, [&] {
        require(sound, "sound");
        requireSampleRate(sample_rate);
        constexpr uint64_t maxSamples = uint64_t{1} << 31; // 8 GB: more is a mistake and would exhaust memory
        if (frames == 0 || channels == 0 || channels > 4096 || frames > maxSamples / channels)
            fail(DXR_ERROR_ARGUMENT, "no frames, not 1 to 4096 channels, or more than 2^31 samples");
        CXRef<DXRBuffer> buffer =
            DXRBuffer::initWithSampleRate(sample_rate, static_cast<uint32_t>(frames), channels);
        if (!buffer)
            throw std::bad_alloc();
        *sound = Handles::shared().give<dxr_sound>(
            Kind::Sound, CXRef<Sound>::adopt(new Sound(std::move(buffer), repeats != 0)));
    });
}

dxr_status dxr_sound_samples(dxr_sound* sound, float** samples)
{
    return guarded(__func__, [&] {
        require(samples, "samples");
        *samples = soundOf(sound)->buffer->samples();
    });
}

dxr_status dxr_sound_position(dxr_sound* sound, uint64_t* frames)
{
    return guarded(__func__, [&] {
        require(frames, "frames");
        *frames = soundOf(sound)->position.load(std::memory_order_acquire);
    });
}

dxr_status dxr_runner_new(dxr_runner** runner)
{
    return guarded(__func__, [&] {
        require(runner, "runner");
        CXRef<DXRDeviceRunner> made = DXRDeviceRunner::init();
        if (!made)
            fail(DXR_ERROR_MEMORY, "cannot create a thread");
        *runner = Handles::shared().give<dxr_runner>(Kind::Runner,
                                                     CXRef<Runner>::adopt(new Runner(std::move(made))));
    });
}

dxr_status dxr_runner_set_format(dxr_runner* runner, uint32_t frames, double sample_rate)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (sample_rate != 0.0)
            requireSampleRate(sample_rate);
        if (frames > DXRDeviceRunner::maxFrames)
            fail(DXR_ERROR_ARGUMENT, "more than 1048576 frames in a cycle");
        requireStopped(*it);
        if (!it->runner->setFrameCount(frames) || !it->runner->setSampleRate(sample_rate))
            fail(DXR_ERROR_STATE, "the runner has started");
    });
}

dxr_status dxr_runner_set_quality(dxr_runner* runner, dxr_quality quality)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (quality != DXR_QUALITY_STANDARD && quality != DXR_QUALITY_HIGH)
            fail(DXR_ERROR_ARGUMENT, "the quality is neither DXR_QUALITY_STANDARD nor DXR_QUALITY_HIGH");
        requireStopped(*it);
        if (!it->runner->setConversionQuality(quality == DXR_QUALITY_HIGH ? DXRConversionQuality::High
                                                                          : DXRConversionQuality::Standard))
            fail(DXR_ERROR_STATE, "the runner has started");
    });
}

dxr_status dxr_runner_add(dxr_runner* runner, const dxr_node* node)
{
    return guarded(__func__, [&] { addNode(*runnerOf(runner), readStruct(node, "node")); });
}

dxr_status dxr_runner_remove(dxr_runner* runner, dxr_device* device)
{
    return guarded(__func__, [&] {
        if (!runnerOf(runner)->runner->removeDevice(deviceOf(device)))
            fail(DXR_ERROR_NOT_FOUND, "the runner does not have this device, or only as the default");
    });
}

dxr_status dxr_runner_remove_default(dxr_runner* runner, dxr_direction direction)
{
    return guarded(__func__, [&] {
        runnerOf(runner)->runner->removeDefaultDevice(
            isInput(direction) ? DXRDeviceRunner::Direction::Input : DXRDeviceRunner::Direction::Output);
    });
}

dxr_status dxr_runner_start(dxr_runner* runner)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> it = runnerOf(runner);
        if (it->hasEnded)
            it->runner->stop(); // the stop requested by a callback may still be pending
        it->hasEnded = false;
        it->runner->start();
    });
}

dxr_status dxr_runner_stop(dxr_runner* runner)
{
    return guarded(__func__, [&] { runnerOf(runner)->runner->stop(); });
}

dxr_status dxr_runner_get_state(dxr_runner* runner, dxr_runner_state* state)
{
    return guarded(__func__, [&] {
        const CXRef<Runner> kept = runnerOf(runner); // another thread may release the handle meanwhile
        const DXRDeviceRunner& it = *kept->runner;
        (void)readStruct(state, "state");
        const DXRRunnerCounts counts = it.counts();
        dxr_runner_state now{};
        now.size = sizeof now;
        now.is_running = it.isRunning();
        now.frames = it.frameCount();
        now.sample_rate = it.sampleRate();
        now.sample_time = it.sampleTime();
        now.cycles = counts.cycles;
        now.late_cycles = counts.lateCycles;
        now.lost_frames = counts.lostFrames();
        now.restarts = counts.restarts;
        const std::string error = it.error().text;
        std::ranges::copy(dxr::utf8Prefix(error, sizeof now.error - 1), now.error);
        std::memcpy(state, &now, sizeof now);
    });
}

dxr_status dxr_runner_get_latency(dxr_runner* runner, dxr_device* device, dxr_latency* latency)
{
    return guarded(__func__, [&] {
        const CXRef<DXRDevice> wanted = deviceOf(device);
        (void)readStruct(latency, "latency");
        for (const DXRDeviceLatency& each : runnerOf(runner)->runner->latencies()) {
            if (each.deviceUID != wanted->deviceUID() || each.isInput != wanted->isInput())
                continue;
            *latency = {sizeof *latency,      each.seconds(),          each.frames(),    each.sampleRate,
                        each.deviceFrames,    each.safetyOffsetFrames, each.cycleFrames, each.blockFrames,
                        each.converterFrames, each.ringFrames};
            return;
        }
        fail(DXR_ERROR_STATE, "the device does not run in this runner");
    });
}

dxr_status dxr_runner_active_devices(dxr_runner* runner, dxr_device* const** devices, size_t* count)
{
    return guarded(__func__, [&] {
        require(devices, "devices");
        require(count, "count");
        giveList(runnerOf(runner)->runner->activeDevices(), devices, count);
    });
}

dxr_status dxr_runner_follow(dxr_runner* runner, dxr_runner_callback callback, void* user)
{
    return guarded(__func__, [&] {
        runnerOf(runner)->follow(callback ? CXBlock<void()>([callback, user] { callback(user); }) : nullptr);
    });
}

} // extern "C"
