#pragma once

#include "AudioHardwareTypes.h"
#include "HALDirection.h"
#include "SimulatedSignal.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

struct SimulatedDeviceDescription;

/// Describes a simulated device; every call alters the description and returns it, so that calls chain:
/// `aDevice().uid("usb-1").outputs(2).volume(HALDirection::Output, 0.5F)`. A fresh one is a visible virtual
/// device named "Device" without streams, at 48000 Hz, taking 44100 to 192000 Hz, with 512-frame cycles.
/// Threads:   one. Copies are independent.
class DXR_EXPORT SimulatedDeviceBuilder {
public:
    SimulatedDeviceBuilder();
    explicit SimulatedDeviceBuilder(const SimulatedDeviceDescription& description);
    SimulatedDeviceBuilder(const SimulatedDeviceBuilder& other);
    SimulatedDeviceBuilder& operator=(const SimulatedDeviceBuilder& other);
    ~SimulatedDeviceBuilder();

    SimulatedDeviceBuilder& uid(std::string uid);
    /// Bytes that are not UTF-8 are replaced when the device is plugged.
    SimulatedDeviceBuilder& name(std::string name);
    SimulatedDeviceBuilder& manufacturer(std::string manufacturer);
    SimulatedDeviceBuilder& modelUID(std::string modelUID);
    /// A kAudioDeviceTransportType… code.
    SimulatedDeviceBuilder& transport(uint32_t transportType);
    SimulatedDeviceBuilder& hidden(bool isHidden = true);
    /// Whether the device may be a default device at all.
    SimulatedDeviceBuilder& canBeDefault(bool canBe);

    /// Adds a stream of so many interleaved channels.
    SimulatedDeviceBuilder& inputs(uint32_t channelCount);
    SimulatedDeviceBuilder& outputs(uint32_t channelCount);
    /// Takes the streams of a direction away.
    SimulatedDeviceBuilder& noStreams(HALDirection direction);

    /// The nominal rate in Hz. It need not be among those it can take.
    SimulatedDeviceBuilder& sampleRate(double rate);
    /// The rates it can take, in Hz; instead of what was there.
    SimulatedDeviceBuilder& sampleRates(std::initializer_list<double> rates);
    /// Adds every rate from `minimum` to `maximum` Hz.
    SimulatedDeviceBuilder& sampleRateRange(double minimum, double maximum);
    SimulatedDeviceBuilder& bufferFrameSize(uint32_t frameCount);
    SimulatedDeviceBuilder& bufferFrameSizeRange(uint32_t minimum, uint32_t maximum);

    /// A volume control on the main element, scalar 0..1.
    SimulatedDeviceBuilder& volume(HALDirection direction, float scalar);
    /// A volume control on each channel from 1, scalar 0..1, and none on the main element. NaN gives a
    /// channel none.
    SimulatedDeviceBuilder& channelVolumes(HALDirection direction, std::initializer_list<float> scalars);
    /// Names of the channels from 1, as "Front Left".
    SimulatedDeviceBuilder& channelNames(HALDirection direction, std::vector<std::string> names);
    SimulatedDeviceBuilder& mute(HALDirection direction, bool isMuted);
    /// Adds a data source; the first of a direction is the current one.
    SimulatedDeviceBuilder& source(HALDirection direction, uint32_t sourceID, std::string name);
    SimulatedDeviceBuilder& currentSource(HALDirection direction, uint32_t sourceID);
    SimulatedDeviceBuilder& stereoChannels(HALDirection direction, uint32_t left, uint32_t right);
    SimulatedDeviceBuilder& latency(HALDirection direction, uint32_t frameCount, uint32_t safetyOffset = 0);

    /// Devices of one clock domain run at one rate; 0, the default, is a clock of its own.
    SimulatedDeviceBuilder& clockDomain(uint32_t domain);
    /// How much faster than nominal the device's clock runs against the host's, in parts per million.
    SimulatedDeviceBuilder& drift(double partsPerMillion);
    /// How much later than its clock the time stamps of a cycle are: by so many seconds in the middle, 0.6 to
    /// 3 times that as a rule, and once in 2000 cycles by up to 0.4 ms more, as threads of a computer are
    /// late. The same in every run.
    SimulatedDeviceBuilder& lateness(double seconds);

    /// What its inputs hear; silence without one.
    SimulatedDeviceBuilder& hears(SimulatedSource source);
    /// Its inputs hear what the device itself played a cycle ago, channel by channel, after volume and mute.
    SimulatedDeviceBuilder& loopsBack();
    /// Where its output goes.
    SimulatedDeviceBuilder& playsInto(SimulatedSink sink);

    const SimulatedDeviceDescription& description() const noexcept { return *_description; }

private:
    std::unique_ptr<SimulatedDeviceDescription> _description;
};

/// A fresh description, to be built upon.
DXR_EXPORT SimulatedDeviceBuilder aDevice();
