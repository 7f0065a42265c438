#include "DemoStage.h"

#include "TextFormat.h"

#include <dxr/USBRegistry.h>

using enum DemoStage::Device;
using enum HALDirection;

namespace {

constexpr DemoStage::Facts facts[] = {
    {"Stage Microphone", "demo-microphone", Input, 48000.0, 80.0},
    {"Studio Monitors", "demo-monitors", Output, 44100.0, -60.0},
    {"Headphones", "demo-headphones", Output, 96000.0, 150.0},
};

constexpr double scriptSeconds = 18.0;
constexpr DemoStage::Step script[DemoStage::stepCount] = {
    {4.0, Headphones, false},  {6.5, Headphones, true}, {10.0, Microphone, false}, {10.0, Monitors, false},
    {10.0, Headphones, false}, {12.0, Monitors, true},  {13.0, Headphones, true},  {14.0, Microphone, true},
};

// Ports 2 and 3 of the hub on port 1 of the first bus.
constexpr uint32_t firstLocation = 0x01120000;
constexpr uint32_t secondLocation = 0x01130000;

CXRef<SimulatedHardware> openHardware()
{
    CXRef<SimulatedHardware> hardware = SimulatedHardware::init(SimulatedClock::RealTime);
    HALSetHardwareDriver(hardware);
    return hardware;
}

} // namespace

const DemoStage::Facts& DemoStage::factsOf(Device device)
{
    return facts[device];
}

DemoStage::DemoStage(double seconds) : _hardware(openHardware()), _seconds(seconds)
{
    constexpr double spareSeconds = 5.0;
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

void DemoStage::_unplug(Device device)
{
    _hardware->unplug(uidOf(device));
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
