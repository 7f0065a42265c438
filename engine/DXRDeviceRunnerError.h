#pragma once

#include "AudioHardware.h"
#include "CXExport.h"

#include <string>

/// Why a runner has no audio though it runs.
struct DXR_EXPORT DXRDeviceRunnerError {
    std::string deviceUID;                    ///< the device that did not start; empty when it is none alone
    HALStatus status = kAudioHardwareNoError; ///< of the hardware's call; 0 when it was not the hardware
    std::string text;                         ///< for a user; empty when there is no error

    explicit operator bool() const noexcept { return !text.empty(); }
    friend bool operator==(const DXRDeviceRunnerError&, const DXRDeviceRunnerError&) = default;
};
