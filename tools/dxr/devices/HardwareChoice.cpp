#include "HardwareChoice.h"

#include "ToolFailure.h"

#include <dxr/HALHardwareDriver.h>

namespace {

/// Creates a computer with one device of every kind that programs must support.
CXRef<SimulatedHardware> simulatedComputer()
{
    using enum HALDirection;
    constexpr float tone = 0.25F;
    CXRef<SimulatedHardware> computer = SimulatedHardware::init(SimulatedClock::RealTime);
    const auto device = [](const char* uid, const char* name, const char* modelUID, uint32_t transport) {
        return aDevice()
            .uid(uid)
            .name(name)
            .manufacturer("Simulated")
            .modelUID(modelUID)
            .transport(transport);
    };
    computer->plug(
        device("sim-speakers", "Built-in Speakers", "sim:speakers", kAudioDeviceTransportTypeBuiltIn)
            .outputs(2)
            .sampleRates({44100.0, 48000.0, 96000.0})
            .volume(Output, 0.7F)
            .mute(Output, false)
            .source(Output, 1, "Speakers")
            .source(Output, 2, "Line Out")
            .stereoChannels(Output, 1, 2)
            .latency(Output, 96, 32));
    computer->plug(device("sim-usb-mic", "USB Microphone", "sim:mic", kAudioDeviceTransportTypeUSB)
                       .inputs(1)
                       .sampleRates({44100.0, 48000.0})
                       .channelVolumes(Input, {1.0F})
                       .mute(Input, false)
                       .latency(Input, 48)
                       .hears(simulatedTone(440.0, tone)));
    computer->plug(
        device("sim-surround", "Living Room Receiver", "sim:receiver", kAudioDeviceTransportTypeHDMI)
            .outputs(6)
            .sampleRates({48000.0, 96000.0, 192000.0})
            .channelNames(Output, {"Front Left", "Front Right", "Front Centre", "Low Frequencies",
                                   "Rear Left", "Rear Right"})
            .channelVolumes(Output, {0.8F, 0.8F, 0.8F, 0.8F, 0.6F, 0.6F})
            .stereoChannels(Output, 1, 2));
    computer->plug(aDevice().uid("sim-loopback").name("Loop-back Cable").inputs(2).outputs(2).loopsBack());
    computer->plug(aDevice()
                       .uid("sim-ramp")
                       .name("Ramp Generator")
                       .inputs(2)
                       .canBeDefault(false)
                       .hears(simulatedRamp()));
    computer->plug(
        aDevice().uid("sim-hidden").name("Service\x1B[31m Port\r\n").hidden().inputs(2).outputs(2));
    return computer;
}

} // namespace

HardwareChoice::HardwareChoice(CLI::App& command)
{
    auto* const simulated =
        command.add_flag("--simulated", _isSimulated, "Use the devices of a simulated computer");
    command
        .add_option("--hardware", _driver,
                    "The driver: pipewire (the default), alsa (the sound cards, without a sound server), or "
                    "alsa:2 (with shorter buffers)")
        ->excludes(simulated);
}

void HardwareChoice::apply()
{
    const CXRef<HALHardwareDriver> driver = _driver.empty() ? nullptr : HALMakeHardwareDriver(_driver);
    if (!_driver.empty() && !driver)
        throw ToolFailure("no driver '" + _driver + "': use pipewire, alsa or alsa:2, if they were built in");
    if (driver)
        HALSetHardwareDriver(driver);
    if (_isSimulated)
        HALSetHardwareDriver(_simulated = simulatedComputer());
}

std::unique_ptr<SimulatedVisitor> HardwareChoice::visitor(std::chrono::milliseconds pause) const
{
    return _simulated ? std::make_unique<SimulatedVisitor>(_simulated, pause) : nullptr;
}
