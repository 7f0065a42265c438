#include "SimulatedVisitor.h"

#include <functional>

using Device = SimulatedDeviceBuilder;
using enum HALDirection;

namespace {

Device headphones()
{
    return aDevice()
        .uid("sim-headphones")
        .name("Wireless Headphones")
        .manufacturer("Simulated")
        .transport(kAudioDeviceTransportTypeBluetooth)
        .inputs(1)
        .outputs(2)
        .sampleRates({16000.0, 48000.0})
        .volume(Output, 0.5F)
        .mute(Output, false)
        .latency(Output, 4800);
}

} // namespace

SimulatedVisitor::SimulatedVisitor(CXRef<SimulatedHardware> hardware, std::chrono::milliseconds pause)
    : _hardware(std::move(hardware)), _pauseBetween(pause), _thread([this] { _visit(); })
{}

SimulatedVisitor::~SimulatedVisitor()
{
    {
        const std::scoped_lock lock(_mutex);
        _isOver = true;
    }
    _ended.notify_one();
    _thread.join();
}

bool SimulatedVisitor::_pause()
{
    std::unique_lock lock(_mutex);
    return !_ended.wait_for(lock, _pauseBetween, [this] { return _isOver; });
}

void SimulatedVisitor::_visit()
{
    SimulatedHardware& hardware = *_hardware;
    const std::function<void()> steps[] = {
        [&] { hardware.plug(headphones()); },
        [&] { hardware.setDefault(Output, "sim-headphones"); },
        [&] { hardware.reconfigure("sim-headphones", [](Device& device) { device.volume(Output, 0.35F); }); },
        [&] {
            hardware.reconfigure("sim-usb-mic", [](Device& device) { device.name("Interview Microphone"); });
        },
        [&] {
            hardware.reconfigure("sim-speakers", [](Device& device) { device.currentSource(Output, 2); });
        },
        [&] { hardware.unplug("sim-headphones"); },
        [&] { hardware.reconfigure("sim-usb-mic", [](Device& device) { device.name("USB Microphone"); }); },
        [&] {
            hardware.reconfigure("sim-speakers", [](Device& device) { device.currentSource(Output, 1); });
        },
    };
    for (size_t step = 0; _pause(); step = (step + 1) % std::size(steps))
        steps[step]();
}
