#pragma once

#include "DXRDevice.h"
#include "Packer.h"

#include <array>
#include <string>
#include <vector>

namespace dxr_c {

/// The values of a device at one time.
class DeviceValues {
public:
    explicit DeviceValues(const DXRDevice& device);
    /// The struct that callers read; its texts and lists are packed.
    dxr_device_info packedBy(Packer& packer) const;

private:
    dxr_device_info _info{};
    std::array<std::string, 8> _texts;
    std::vector<double> _sampleRates;
    std::vector<std::string> _sources;
};

} // namespace dxr_c
