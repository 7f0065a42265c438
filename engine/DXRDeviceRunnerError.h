#pragma once

#include "AudioHardware.h"
#include "CXExport.h"

#include <string>

/// The reason why a running runner has no audio.
struct DXR_EXPORT DXRDeviceRunnerError {
    std::string deviceUID; ///< the device that did not start; empty if no single device is the cause
    HALStatus status = kAudioHardwareNoError; ///< of the hardware's call; 0 if the hardware is not the cause
    std::string text;                         ///< a message for users; empty without an error

    explicit operator bool() const noexcept { return !text.empty(); }
    friend bool operator==(const DXRDeviceRunnerError&, const DXRDeviceRunnerError&) = default;
};
