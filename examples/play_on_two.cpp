// Plays a tone on two output devices at once, for SECONDS or one second: play_on_two [SECONDS]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRDeviceRunner.h>
#include <dxr/LogSink.h>
#include <numbers>
#include <thread>

namespace {

// Called by the runner once a cycle for each device, on a real-time thread: no lock, no allocation, no
// waiting. The output depends on the sample time alone, so that both devices play the same.
void playTone(uint64_t sampleTime, DXRBuffer& buffer)
{
    const double turnsPerFrame = 440.0 / buffer.sampleRate();
    for (uint32_t frame = 0; frame < buffer.frameCount(); ++frame) {
        const double turns = std::fmod(static_cast<double>(sampleTime + frame) * turnsPerFrame, 1.0);
        const auto sample = static_cast<float>(0.2 * std::sin(2.0 * std::numbers::pi * turns));
        for (uint32_t channel = 0; channel < buffer.channelCount(); ++channel)
            buffer.samples()[size_t{frame} * buffer.channelCount() + channel] = sample;
    }
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    if (!runner)
        return 1;
    // The devices may differ in rate, cycle and clock. The blocks run at the rate and frame count set here.
    runner->setSampleRate(48000.0);
    runner->setFrameCount(256);
    for (const CXRef<DXRDevice>& device : DXRDeviceManager::sharedDeviceManager().connectedDevices()) {
        if (!device->isInput() && runner->devices().size() < 2)
            runner->addDevice(device, std::nullopt, &playTone);
    }
    if (runner->devices().size() < 2) {
        std::fputs("There are no two output devices.\n", stderr);
        return 1;
    }
    runner->start(); // a device that is unplugged from now on resumes when it returns
    for (const CXRef<DXRDevice>& device : runner->activeDevices())
        std::printf("Playing on %s\n", dxr::printableText(device->displayName()).c_str());
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    runner->stop();
}
