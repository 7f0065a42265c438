#pragma once

#include "CXPlist.h"

#include <cstdint>
#include <string>
#include <vector>

class DXRDeviceHardware;

/// What is known of one direction of a device besides who it is: read from the hardware, kept while that is
/// away, and written to and read from archives.
/// Threads:   a plain record.
struct DXRDeviceValues {
    uint32_t channelCount = 0;
    std::string manufacturer, model, name;
    std::string transportType; ///< four characters; empty when unknown
    std::string source;        ///< the current one's name; empty without one
    std::vector<std::string> availableSources;
    std::vector<uint32_t> preferredStereoChannels{1, 2}; ///< two channel numbers from 1
    std::vector<double> availableSampleRates;            ///< Hz, ascending
    double sampleRate = 44100.0;                         ///< Hz
    bool hasMute = false, isMuted = false;
    bool hasVolume = false;
    double volume = 1.0; ///< scalar 0 to 1; 1 without a control

    /// Asks the hardware for everything but the channel count.
    static DXRDeviceValues ofHardware(const DXRDeviceHardware& hardware, uint32_t channelCount);
    /// What is missing, or is nothing that hardware could report, keeps its value from above; a channel count
    /// of 0 then means that the archive is none.
    static DXRDeviceValues ofArchive(const CXPlist& archive);
    void addTo(CXPlist& archive) const;
};
