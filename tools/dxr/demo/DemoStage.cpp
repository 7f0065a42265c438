#include "DemoStage.h"

#include "Text.h"

#include <dxr/HostClock.h>
#include <dxr/USBRegistry.h>
#include <utility>

using enum DemoStage::Device;
using enum HALDirection;

constexpr double scriptSeconds = 18.0;
constexpr DemoStage::Step script[DemoStage::stepCount] = {
    {4.0, Headphones, false},  {6.5, Headphones, true}, {10.0, Microphone, false}, {10.0, Monitors, false},
    {10.0, Headphones, false}, {12.0, Monitors, true},  {13.0, Headphones, true},  {14.0, Microphone, true},
};

// Ports 2 and 3 of the hub on port 1 of the first bus.
constexpr uint32_t firstLocation = 0x01120000;
constexpr uint32_t secondLocation = 0x01130000;

DemoStage::DemoStage(double seconds)
    : _hardware(SimulatedHardware::init(SimulatedClock::RealTime)), _seconds(seconds)
{
    constexpr double spareSeconds = 5.0;
    HALSetHardwareDriver(_hardware);
    _setLocation(firstLocation);
    for (const Device output : outputs)
        _recordings[output] =
            std::make_unique<DemoRecording>(facts[output].sampleRate, seconds + spareSeconds);
    for (const Device device : devices)
        _plug(device);
}

DemoStage::~DemoStage()
{
    for (const Device device : devices)
        _unplug(device);
    dxr::USBRegistry::setReader({});
}

std::optional<DemoStage::Step> DemoStage::performNext(double seconds)
{
    if (_stepsDone == stepCount || script[_stepsDone].seconds * _seconds / scriptSeconds > seconds)
        return std::nullopt;
    const Step& step = script[_stepsDone++];
    if (step.isPlug)
        _plug(step.device);
    else
        _unplug(step.device);
    if (!step.isPlug && step.device == Headphones)
        _setLocation(secondLocation); // they will be plugged in there
    return step;
}

void DemoStage::_plug(Device device)
{
    constexpr float fullVolume = 1.0F; // a simulated device does not remember its volume
    const Facts& fact = facts[device];
    SimulatedDeviceBuilder builder = aDevice()
                                         .uid(uidOf(device))
                                         .name(fact.name)
                                         .manufacturer("Simulated")
                                         .sampleRate(fact.sampleRate)
                                         .sampleRates({fact.sampleRate})
                                         .drift(fact.partsPerMillion);
    if (fact.direction == Input)
        builder.inputs(1)
            .transport(kAudioDeviceTransportTypeBuiltIn)
            .hears(simulatedTone(toneFrequency, toneAmplitude));
    else
        builder.outputs(2)
            .transport(device == Headphones ? kAudioDeviceTransportTypeUSB : kAudioDeviceTransportTypeHDMI)
            .volume(Output, fullVolume)
            .playsInto(_recordings[device]->sink());
    _hardware->plug(builder);
}

void DemoStage::_setLocation(uint32_t location)
{
    _location = location;
    dxr::USBRegistry::setReader(
        [location] { return dxr::USBRegistryContents::initWithDevices({{location}}, {}); });
}

std::string DemoStage::uidOf(Device device) const
{
    return device == Headphones ? formatText("%s:%08X", facts[device].uid, _location) : facts[device].uid;
}

// ---- DemoRecording

DemoRecording::DemoRecording(double sampleRate, double seconds)
    : _sampleRate(sampleRate), _blockFrames(static_cast<size_t>(blockSeconds * sampleRate)),
      _maxBlocks(static_cast<size_t>(seconds / blockSeconds)),
      _samples(std::make_unique_for_overwrite<float[]>(_maxBlocks * _blockFrames)),
      _blockTicks(std::make_unique_for_overwrite<uint64_t[]>(_maxBlocks))
{}

void DemoRecording::_keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels,
                          const float* samples) noexcept
{
    const uint64_t now = dxr::HostClock::nowTicks();
    if (std::exchange(_nextSampleTime, sampleTime + frameCount) != sampleTime)
        _filledFrames = 0; // the device disconnected, or lost cycles
    size_t block = _blockCount.load(std::memory_order_relaxed);
    for (uint32_t frame = 0; frame < frameCount && block < _maxBlocks; ++frame) {
        if (_filledFrames == 0)
            _blockTicks[block] = now + static_cast<uint64_t>(frame / _sampleRate * 1e9);
        _samples[block * _blockFrames + _filledFrames] = samples[size_t{frame} * channels];
        _filledFrames = (_filledFrames + 1) % _blockFrames;
        block += _filledFrames == 0;
    }
    _blockCount.store(block, std::memory_order_release);
}
