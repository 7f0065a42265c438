#pragma once

#include "CXPlist.h"

#include <cstdint>
#include <string>
#include <vector>

class DXRDeviceHardware;

/// The known values of one direction of a device, except its identity: read from the hardware, kept while the
/// hardware is absent, written to and read from archives.
/// Threads:   a plain record.
struct DXRDeviceValues {
    uint32_t channelCount = 0;
    std::string manufacturer, model, name;
    std::string transportType; ///< four characters; empty if unknown
    std::string source;        ///< the current source's name; empty without one
    std::vector<std::string> availableSources;
    std::vector<uint32_t> preferredStereoChannels{1, 2}; ///< two channel numbers from 1
    std::vector<double> availableSampleRates;            ///< Hz, ascending
    double sampleRate = 44100.0;                         ///< Hz
    bool hasMute = false, isMuted = false;
    bool hasVolume = false;
    double volume = 1.0; ///< scalar 0 to 1; 1 without a control

    /// Reads everything from the hardware, except the channel count.
    static DXRDeviceValues ofHardware(const DXRDeviceHardware& hardware, uint32_t channelCount);
    /// A value that is missing, or impossible for hardware, keeps the default above. A channel count of 0
    /// then means that the archive is invalid.
    static DXRDeviceValues ofArchive(const CXPlist& archive);
    void addTo(CXPlist& archive) const;
    bool operator==(const DXRDeviceValues&) const = default;
};
