#pragma once

#include <dxr/simulated.h>

/// The devices of the simulated computer: one of every kind that a program must cope with.
/// Threads: any.
class SimulatedDevices {
public:
    /// A computer on a real-time clock with all the devices plugged in:
    /// - "Built-in Speakers" (sim-speakers): stereo, volume, mute, two sources; the default output
    /// - "USB Microphone" (sim-usb-mic): mono input that hears a 440 Hz tone, per-channel volume; the default
    /// input
    /// - "Living Room Receiver" (sim-surround): 5.1 over HDMI
    /// - "Loop-back Cable" (sim-loopback): what is played into it comes back from its input
    /// - "Ramp Generator" (sim-ramp): stereo input whose every frame is its own sample time
    /// - "Service Port" (sim-hidden): hidden, with an escape sequence in its name
    static CXRef<SimulatedHardware> open();
    /// The device that comes and goes in scripts: "Wireless Headphones" (sim-headphones), stereo both ways.
    static SimulatedDeviceBuilder headphones();
};
