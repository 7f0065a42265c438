#include "SimulatedVisitor.h"

#include "SimulatedZoo.h"

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
    const std::function<void()> deeds[] = {
        [&] { _backend->plug(SimulatedZoo::headphones()); },
        [&] { _backend->setDefault(HALDirection::Output, "zoo-headphones"); },
        [&] {
            alter("zoo-headphones",
                  [](SimulatedDeviceBuilder& device) { device.volume(HALDirection::Output, 0.35F); });
        },
        [&] {
            alter("zoo-usb-mic", [](SimulatedDeviceBuilder& device) { device.name("Interview Microphone"); });
        },
        [&] {
            alter("zoo-speakers",
                  [](SimulatedDeviceBuilder& device) { device.currentSource(HALDirection::Output, 2); });
        },
        [&] { _backend->unplug("zoo-headphones"); },
        [&] { alter("zoo-usb-mic", [](SimulatedDeviceBuilder& device) { device.name("USB Microphone"); }); },
        [&] {
            alter("zoo-speakers",
                  [](SimulatedDeviceBuilder& device) { device.currentSource(HALDirection::Output, 1); });
        },
    };
    for (;;) {
        for (const std::function<void()>& deed : deeds) {
            if (!_pause())
                return;
            deed();
        }
    }
}
