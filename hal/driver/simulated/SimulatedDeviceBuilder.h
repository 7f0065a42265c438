#pragma once

#include "AudioHardwareTypes.h"
#include "HALDirection.h"
#include "SimulatedSignal.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

struct SimulatedDeviceDescription;

/// Describes a simulated device. Every call changes the description and returns it, so calls can be chained:
/// `aDevice().uid("usb-1").outputs(2).volume(HALDirection::Output, 0.5F)`. By default it is a visible virtual
/// device named "Device" without streams, at 48000 Hz, which supports 44100 to 192000 Hz, with 512-frame
/// cycles.
/// Threads:   one. Copies are independent.
class DXR_EXPORT SimulatedDeviceBuilder {
public:
    SimulatedDeviceBuilder();
    explicit SimulatedDeviceBuilder(const SimulatedDeviceDescription& description);
    SimulatedDeviceBuilder(const SimulatedDeviceBuilder& other);
    SimulatedDeviceBuilder& operator=(const SimulatedDeviceBuilder& other);
    ~SimulatedDeviceBuilder();

    SimulatedDeviceBuilder& uid(std::string uid);
    /// Bytes that are not valid UTF-8 are replaced when the device is plugged in.
    SimulatedDeviceBuilder& name(std::string name);
    SimulatedDeviceBuilder& manufacturer(std::string manufacturer);
    SimulatedDeviceBuilder& modelUID(std::string modelUID);
    /// A kAudioDeviceTransportType… code.
    SimulatedDeviceBuilder& transport(uint32_t transportType);
    SimulatedDeviceBuilder& hidden(bool isHidden = true);
    /// Whether the device may be a default device.
    SimulatedDeviceBuilder& canBeDefault(bool canBe);

    /// Adds a stream of `channelCount` interleaved channels.
    SimulatedDeviceBuilder& inputs(uint32_t channelCount);
    SimulatedDeviceBuilder& outputs(uint32_t channelCount);
    /// Removes the streams of a direction.
    SimulatedDeviceBuilder& noStreams(HALDirection direction);

    /// The nominal rate in Hz. It need not be one of the supported rates.
    SimulatedDeviceBuilder& sampleRate(double rate);
    /// Replaces the supported rates, in Hz.
    SimulatedDeviceBuilder& sampleRates(std::initializer_list<double> rates);
    /// Adds the rates from `minimum` to `maximum` Hz to the supported rates.
    SimulatedDeviceBuilder& sampleRateRange(double minimum, double maximum);
    SimulatedDeviceBuilder& bufferFrameSize(uint32_t frameCount);
    SimulatedDeviceBuilder& bufferFrameSizeRange(uint32_t minimum, uint32_t maximum);

    /// Adds a volume control to the main element, scalar 0..1.
    SimulatedDeviceBuilder& volume(HALDirection direction, float scalar);
    /// Adds a volume control to each channel from 1, scalar 0..1, and removes that of the main element. A
    /// channel whose value is NaN has none.
    SimulatedDeviceBuilder& channelVolumes(HALDirection direction, std::initializer_list<float> scalars);
    /// The names of the channels from 1, such as "Front Left".
    SimulatedDeviceBuilder& channelNames(HALDirection direction, std::vector<std::string> names);
    SimulatedDeviceBuilder& mute(HALDirection direction, bool isMuted);
    /// Adds a data source; the first of a direction is the current one.
    SimulatedDeviceBuilder& source(HALDirection direction, uint32_t sourceID, std::string name);
    SimulatedDeviceBuilder& currentSource(HALDirection direction, uint32_t sourceID);
    SimulatedDeviceBuilder& stereoChannels(HALDirection direction, uint32_t left, uint32_t right);
    SimulatedDeviceBuilder& latency(HALDirection direction, uint32_t frameCount, uint32_t safetyOffset = 0);

    /// Devices of one clock domain share a clock; with 0, the default, the device has its own.
    SimulatedDeviceBuilder& clockDomain(uint32_t domain);
    /// How much faster than nominal the device's clock runs against the host's, in parts per million.
    SimulatedDeviceBuilder& drift(double partsPerMillion);
    /// Makes the time stamps of cycles late relative to the device's clock, as threads wake late: the median
    /// is `seconds`, the usual range 0.6 to 3 times that, and once in 2000 cycles up to 0.4 ms are added. The
    /// same in every run.
    SimulatedDeviceBuilder& lateness(double seconds);

    /// The signal of the inputs; silence by default.
    SimulatedDeviceBuilder& hears(SimulatedSource source);
    /// The inputs receive the device's own output of the previous cycle, channel by channel, after volume and
    /// mute.
    SimulatedDeviceBuilder& loopsBack();
    /// Receives the output.
    SimulatedDeviceBuilder& playsInto(SimulatedSink sink);

    const SimulatedDeviceDescription& description() const noexcept { return *_description; }

private:
    std::unique_ptr<SimulatedDeviceDescription> _description;
};

/// Returns a default description.
DXR_EXPORT SimulatedDeviceBuilder aDevice();
