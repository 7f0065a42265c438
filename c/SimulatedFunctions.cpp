// The functions of simulated hardware.

#include "Arguments.h"
#include "DXRDeviceManager.h"
#include "Events.h"
#include "Guard.h"
#include "simulated.h"

#include <cmath>

using namespace dxr_c;

namespace {

CXRef<SimulatedHardware> computerOf(const dxr_computer* handle)
{
    return Handles::shared().object<SimulatedHardware>(handle, Kind::Computer);
}

/// The builder of a simulated device with this description.
SimulatedDeviceBuilder builderOf(const dxr_simulated_device& device)
{
    SimulatedDeviceBuilder builder = aDevice();
    builder.uid(textOf(device.uid, "device->uid"))
        .hidden(device.is_hidden != 0)
        .clockDomain(device.clock_domain);
    if (device.name)
        builder.name(textOf(device.name, "device->name"));
    if (device.transport) {
        const std::string code = textOf(device.transport, "device->transport");
        if (code.size() != 4)
            fail(DXR_ERROR_TEXT, "device->transport is not of four characters");
        uint32_t type = 0;
        for (const char letter : code)
            type = type << 8 | static_cast<unsigned char>(letter);
        builder.transport(type);
    }
    if (std::max(device.inputs, device.outputs) > 1024 || device.frames > DXRDeviceRunner::maxFrames)
        fail(DXR_ERROR_ARGUMENT, "more than 1024 channels, or too many frames");
    if (device.frames > 0)
        builder.bufferFrameSize(device.frames);
    if (device.sample_rate != 0.0) {
        requireSampleRate(device.sample_rate);
        builder.sampleRate(device.sample_rate);
    }
    if (device.sample_rate_count > 0)
        builder.sampleRates({});
    for (size_t i = 0; i < device.sample_rate_count; ++i) {
        require(device.sample_rates, "device->sample_rates");
        requireSampleRate(device.sample_rates[i]);
        builder.sampleRateRange(device.sample_rates[i], device.sample_rates[i]);
    }
    if (!(std::abs(device.drift) <= 10000.0))
        fail(DXR_ERROR_ARGUMENT, "device->drift is more than 10000 parts per million");
    builder.drift(device.drift);
    const auto volume = static_cast<float>(requireFraction(device.volume, "device->volume"));
    const auto describe = [&](HALDirection direction) {
        builder.latency(direction, device.latency);
        if (device.has_volume)
            builder.volume(direction, volume).mute(direction, false);
        for (size_t i = 0; i < device.source_count; ++i) {
            require(device.sources, "device->sources");
            builder.source(direction, static_cast<uint32_t>(i + 1), textOf(device.sources[i], "a source"));
        }
    };
    if (device.inputs > 0) {
        builder.inputs(device.inputs);
        describe(HALDirection::Input);
    }
    if (device.outputs > 0) {
        builder.outputs(device.outputs);
        describe(HALDirection::Output);
    }
    if (!(device.tone >= 0.0 && device.tone <= 1e6))
        fail(DXR_ERROR_ARGUMENT, "device->tone is not a frequency");
    if (device.tone > 0.0)
        builder.hears(simulatedTone(device.tone));
    if (device.loops_back)
        builder.loopsBack();
    return builder;
}

void requirePlugged(bool isPlugged)
{
    if (!isPlugged)
        fail(DXR_ERROR_NOT_FOUND, "no device of that UID is plugged in");
}

} // namespace

extern "C" {

dxr_status dxr_simulated_new(dxr_clock clock, dxr_computer** computer)
{
    return guarded(__func__, [&] {
        require(computer, "computer");
        if (clock != DXR_CLOCK_REAL_TIME && clock != DXR_CLOCK_STEPPED)
            fail(DXR_ERROR_ARGUMENT, "the clock is neither DXR_CLOCK_REAL_TIME nor DXR_CLOCK_STEPPED");
        const CXRef<SimulatedHardware> made = SimulatedHardware::init(
            clock == DXR_CLOCK_STEPPED ? SimulatedClock::Stepped : SimulatedClock::RealTime);
        if (!HALSetHardwareDriver(made))
            fail(DXR_ERROR_STATE, "the process uses other hardware already");
        *computer = Handles::shared().give<dxr_computer>(Kind::Computer, made);
    });
}

dxr_status dxr_simulated_plug(dxr_computer* computer, const dxr_simulated_device* device)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        if (hardware->plug(builderOf(readStruct(device, "device"))) == kAudioObjectUnknown)
            fail(DXR_ERROR_STATE, "a device of this UID is plugged in");
    });
}

dxr_status dxr_simulated_unplug(dxr_computer* computer, const char* uid)
{
    return guarded(__func__, [&] { requirePlugged(computerOf(computer)->unplug(textOf(uid, "uid"))); });
}

dxr_status dxr_simulated_change(dxr_computer* computer, const dxr_simulated_device* device)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        const SimulatedDeviceBuilder changed = builderOf(readStruct(device, "device"));
        requirePlugged(
            hardware->reconfigure(device->uid, [&](SimulatedDeviceBuilder& each) { each = changed; }));
    });
}

dxr_status dxr_simulated_set_default(dxr_computer* computer, dxr_direction direction, const char* uid)
{
    return guarded(__func__, [&] {
        requirePlugged(computerOf(computer)->setDefault(directionOf(direction), textOf(uid, "uid")));
    });
}

dxr_status dxr_simulated_fail(dxr_computer* computer, int starts, int writes)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        hardware->failStarts(starts ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError);
        hardware->failWrites(writes ? kAudioHardwareUnspecifiedError : kAudioHardwareNoError);
    });
}

dxr_status dxr_simulated_lose_cycles(dxr_computer* computer, const char* uid, uint32_t count)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        const std::string text = textOf(uid, "uid");
        requirePlugged(hardware->deviceID(text) != 0);
        if (!hardware->loseCycles(text, count))
            fail(DXR_ERROR_STATE, "the device does not run");
    });
}

dxr_status dxr_simulated_advance(dxr_computer* computer, uint64_t nanoseconds)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        if (nanoseconds > INT64_MAX - hardware->nowTicks())
            fail(DXR_ERROR_ARGUMENT, "the clock would pass 292 years");
        hardware->advance(nanoseconds);
    });
}

dxr_status dxr_simulated_settle(dxr_computer* computer)
{
    return guarded(__func__, [&] {
        const CXRef<SimulatedHardware> hardware = computerOf(computer);
        for (int round = 0; round < 3; ++round) { // an update may request another
            hardware->settle();
            DXRDeviceManager::queue().sync([] {});
        }
        waitForEvents();
    });
}

} // extern "C"
