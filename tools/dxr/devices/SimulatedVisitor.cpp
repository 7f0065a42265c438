#include "SimulatedVisitor.h"

#include "SimulatedDevices.h"

#include <functional>

SimulatedVisitor::SimulatedVisitor(CXRef<SimulatedHardware> backend, std::chrono::milliseconds pause)
    : _backend(std::move(backend)), _pauseBetween(pause), _thread([this] { _visit(); })
{}

SimulatedVisitor::~SimulatedVisitor()
{
    {
        const std::scoped_lock lock(_mutex);
        _isOver = true;
    }
    _left.notify_one();
    _thread.join();
}

bool SimulatedVisitor::_pause()
{
    std::unique_lock lock(_mutex);
    return !_left.wait_for(lock, _pauseBetween, [this] { return _isOver; });
}

void SimulatedVisitor::_visit()
{
    const auto alter = [this](const char* uid, auto change) { _backend->reconfigure(uid, change); };
    const std::function<void()> steps[] = {
        [&] { _backend->plug(SimulatedDevices::headphones()); },
        [&] { _backend->setDefault(HALDirection::Output, "sim-headphones"); },
        [&] {
            alter("sim-headphones",
                  [](SimulatedDeviceBuilder& device) { device.volume(HALDirection::Output, 0.35F); });
        },
        [&] {
            alter("sim-usb-mic", [](SimulatedDeviceBuilder& device) { device.name("Interview Microphone"); });
        },
        [&] {
            alter("sim-speakers",
                  [](SimulatedDeviceBuilder& device) { device.currentSource(HALDirection::Output, 2); });
        },
        [&] { _backend->unplug("sim-headphones"); },
        [&] { alter("sim-usb-mic", [](SimulatedDeviceBuilder& device) { device.name("USB Microphone"); }); },
        [&] {
            alter("sim-speakers",
                  [](SimulatedDeviceBuilder& device) { device.currentSource(HALDirection::Output, 1); });
        },
    };
    for (;;) {
        for (const std::function<void()>& step : steps) {
            if (!_pause())
                return;
            step();
        }
    }
}
