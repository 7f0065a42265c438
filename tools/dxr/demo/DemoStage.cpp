#include "DemoStage.h"

#include "TextFormat.h"

#include <dxr/USBRegistry.h>

namespace {

constexpr DemoStage::Facts facts[] = {
    {"Stage Microphone", true, 48000.0, 80.0},
    {"Studio Monitors", false, 44100.0, -60.0},
    {"Headphones", false, 96000.0, 150.0},
};
constexpr const char* uids[] = {"demo-microphone", "demo-monitors", "demo-headphones"};

// Ports 2 and 3 of the hub on port 1 of the first bus.
constexpr uint32_t firstLocation = 0x01120000;
constexpr uint32_t secondLocation = 0x01130000;

/// The bus as it is with a device at `location`.
void putOnTheBus(uint32_t location)
{
    dxr::USBRegistry::setReader(
        [location] { return dxr::USBRegistryContents::initWithDevices({{location}}, {}); });
}

CXRef<SimulatedHardware> openHardware()
{
    CXRef<SimulatedHardware> backend = SimulatedHardware::init(SimulatedClock::RealTime);
    HALSetHardwareDriver(backend);
    return backend;
}

} // namespace

const DemoStage::Facts& DemoStage::factsOf(Device device)
{
    return facts[device];
}

DemoStage::DemoStage(double seconds) : _backend(openHardware()), _location(firstLocation)
{
    putOnTheBus(_location);
    for (const Device output : outputs)
        _recordings[output] = std::make_unique<DemoRecording>(facts[output].sampleRate, seconds);
}

DemoStage::~DemoStage()
{
    for (const Device device : devices)
        unplug(device);
    dxr::USBRegistry::setReader({});
}

void DemoStage::plug(Device device)
{
    constexpr float fullVolume = 1.0F;
    const Facts& fact = facts[device];
    SimulatedDeviceBuilder builder = aDevice()
                                         .uid(uidOf(device))
                                         .name(fact.name)
                                         .manufacturer("Simulated")
                                         .sampleRate(fact.sampleRate)
                                         .sampleRates({fact.sampleRate})
                                         .drift(fact.partsPerMillion);
    if (fact.isInput)
        builder.inputs(1)
            .transport(kAudioDeviceTransportTypeBuiltIn)
            .hears(simulatedTone(toneFrequency, toneAmplitude));
    else
        builder.outputs(2)
            .transport(device == Headphones ? kAudioDeviceTransportTypeUSB : kAudioDeviceTransportTypeHDMI)
            .volume(HALDirection::Output, fullVolume)
            .playsInto(_recordings[device]->sink());
    _backend->plug(builder);
}

void DemoStage::unplug(Device device)
{
    _backend->unplug(uidOf(device));
}

void DemoStage::changePort()
{
    _location = secondLocation;
    putOnTheBus(_location);
}

std::string DemoStage::uidOf(Device device) const
{
    return device == Headphones ? formatText("%s:%08X", uids[device], _location) : uids[device];
}

std::optional<DemoStage::Device> DemoStage::deviceOf(const std::string& uid)
{
    for (const Device device : devices)
        if (uid.starts_with(uids[device]))
            return device;
    return std::nullopt;
}
