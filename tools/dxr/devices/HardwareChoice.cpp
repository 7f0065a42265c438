#include "HardwareChoice.h"

#include "Text.h"

#include <condition_variable>
#include <dxr/HALHardwareDriver.h>
#include <mutex>

using enum HALDirection;

namespace {

SimulatedDeviceBuilder device(const char* uid, const char* name)
{
    return aDevice().uid(uid).name(name);
}

SimulatedDeviceBuilder device(const char* uid, const char* name, const char* modelUID, uint32_t transport)
{
    return device(uid, name).manufacturer("Simulated").modelUID(modelUID).transport(transport);
}

/// Creates a computer with one device of every kind that programs must support.
CXRef<SimulatedHardware> simulatedComputer()
{
    constexpr float tone = 0.25F;
    CXRef<SimulatedHardware> computer = SimulatedHardware::init(SimulatedClock::RealTime);
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
    computer->plug(device("sim-loopback", "Loop-back Cable").inputs(2).outputs(2).loopsBack());
    computer->plug(device("sim-ramp", "Ramp Generator").inputs(2).canBeDefault(false).hears(simulatedRamp()));
    computer->plug(device("sim-hidden", "Service\x1B[31m Port\r\n").hidden().inputs(2).outputs(2));
    return computer;
}

void changeDevices(const std::stop_token& stop, const CXRef<SimulatedHardware>& hardware,
                   std::chrono::milliseconds pause)
{
    using Device = SimulatedDeviceBuilder;
    const Device headphones = device("sim-headphones", "Wireless Headphones")
                                  .manufacturer("Simulated")
                                  .transport(kAudioDeviceTransportTypeBluetooth)
                                  .inputs(1)
                                  .outputs(2)
                                  .sampleRates({16000.0, 48000.0})
                                  .volume(Output, 0.5F)
                                  .mute(Output, false)
                                  .latency(Output, 4800);
    const auto change = [&](const char* uid, void (*set)(Device&)) {
        return [&hardware, uid, set] { hardware->reconfigure(uid, set); };
    };
    const std::function<void()> steps[] = {
        [&] { hardware->plug(headphones); },
        [&] { hardware->setDefault(Output, "sim-headphones"); },
        change("sim-headphones", [](Device& device) { device.volume(Output, 0.35F); }),
        change("sim-usb-mic", [](Device& device) { device.name("Interview Microphone"); }),
        change("sim-speakers", [](Device& device) { device.currentSource(Output, 2); }),
        [&] { hardware->unplug("sim-headphones"); },
        change("sim-usb-mic", [](Device& device) { device.name("USB Microphone"); }),
        change("sim-speakers", [](Device& device) { device.currentSource(Output, 1); }),
    };
    std::mutex mutex; // required by wait_for(); guards nothing
    std::unique_lock lock(mutex);
    std::condition_variable_any stopped;
    const auto isStopped = [&] { return stop.stop_requested(); };
    for (size_t step = 0; !stopped.wait_for(lock, stop, pause, isStopped); ++step)
        steps[step % std::size(steps)]();
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
    if (_isSimulated)
        HALSetHardwareDriver(_simulated = simulatedComputer());
    if (_driver.empty())
        return;
    const CXRef<HALHardwareDriver> driver = HALMakeHardwareDriver(_driver);
    if (!driver)
        throw CLI::ValidationError("no driver '" + singleLine(_driver) +
                                   "': use pipewire, alsa or alsa:2, if they were built in");
    HALSetHardwareDriver(driver);
}

std::jthread HardwareChoice::visitor(std::chrono::milliseconds pause) const
{
    return _simulated ? std::jthread(changeDevices, _simulated, pause) : std::jthread();
}
