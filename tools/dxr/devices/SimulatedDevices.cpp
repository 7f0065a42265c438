#include "SimulatedDevices.h"

CXRef<SimulatedHardware> SimulatedDevices::open()
{
    using enum HALDirection;
    constexpr float tone = 0.25F;
    CXRef<SimulatedHardware> backend = SimulatedHardware::init(SimulatedClock::RealTime);
    backend->plug(aDevice()
                      .uid("sim-speakers")
                      .name("Built-in Speakers")
                      .manufacturer("Simulated")
                      .modelUID("sim:speakers")
                      .transport(kAudioDeviceTransportTypeBuiltIn)
                      .outputs(2)
                      .sampleRates({44100.0, 48000.0, 96000.0})
                      .volume(Output, 0.7F)
                      .mute(Output, false)
                      .source(Output, 1, "Speakers")
                      .source(Output, 2, "Line Out")
                      .stereoChannels(Output, 1, 2)
                      .latency(Output, 96, 32));
    backend->plug(aDevice()
                      .uid("sim-usb-mic")
                      .name("USB Microphone")
                      .manufacturer("Simulated")
                      .modelUID("sim:mic")
                      .transport(kAudioDeviceTransportTypeUSB)
                      .inputs(1)
                      .sampleRates({44100.0, 48000.0})
                      .channelVolumes(Input, {1.0F})
                      .mute(Input, false)
                      .latency(Input, 48)
                      .hears(simulatedTone(440.0, tone)));
    backend->plug(aDevice()
                      .uid("sim-surround")
                      .name("Living Room Receiver")
                      .manufacturer("Simulated")
                      .modelUID("sim:receiver")
                      .transport(kAudioDeviceTransportTypeHDMI)
                      .outputs(6)
                      .sampleRates({48000.0, 96000.0, 192000.0})
                      .channelNames(Output, {"Front Left", "Front Right", "Front Centre", "Low Frequencies",
                                             "Rear Left", "Rear Right"})
                      .channelVolumes(Output, {0.8F, 0.8F, 0.8F, 0.8F, 0.6F, 0.6F})
                      .stereoChannels(Output, 1, 2));
    backend->plug(aDevice().uid("sim-loopback").name("Loop-back Cable").inputs(2).outputs(2).loopsBack());
    backend->plug(aDevice()
                      .uid("sim-ramp")
                      .name("Ramp Generator")
                      .inputs(2)
                      .canBeDefault(false)
                      .hears(simulatedRamp()));
    backend->plug(aDevice().uid("sim-hidden").name("Service\x1B[31m Port\r\n").hidden().inputs(2).outputs(2));
    return backend;
}

SimulatedDeviceBuilder SimulatedDevices::headphones()
{
    return aDevice()
        .uid("sim-headphones")
        .name("Wireless Headphones")
        .manufacturer("Simulated")
        .transport(kAudioDeviceTransportTypeBluetooth)
        .inputs(1)
        .outputs(2)
        .sampleRates({16000.0, 48000.0})
        .volume(HALDirection::Output, 0.5F)
        .mute(HALDirection::Output, false)
        .latency(HALDirection::Output, 4800);
}
