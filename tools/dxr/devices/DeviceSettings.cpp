#include "DeviceSettings.h"

#include "TextFormat.h"
#include "ToolFailure.h"

#include <thread>

bool comesTrue(const std::function<bool()>& isDone)
{
    constexpr int tries = 200;
    constexpr std::chrono::milliseconds step{10};
    for (int i = 0; i < tries; ++i) {
        if (isDone())
            return true;
        std::this_thread::sleep_for(step);
    }
    return false;
}

void failSetting(const std::string& name, const char* what, HALStatus status)
{
    throw ToolFailure(status == kAudioHardwareNoError
                          ? name + ": did not take over the " + what
                          : name + ": the " + what + " cannot be set: " + textOf(status));
}

void setSampleRate(const std::string& name, AudioObjectID deviceID, double rate)
{
    constexpr double tolerance = 1e-3; // Hz
    const std::string what = "sample rate " + formatRate(rate);
    setAndWait(name, deviceID, addressOf(kAudioDevicePropertyNominalSampleRate), rate, what.c_str(),
               tolerance);
}

void setBufferFrameSize(const std::string& name, AudioObjectID deviceID, uint32_t frameCount)
{
    const std::string what = formatText("cycle of %u frames", frameCount);
    setAndWait(name, deviceID, addressOf(kAudioDevicePropertyBufferFrameSize), frameCount, what.c_str());
}
