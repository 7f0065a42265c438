// Compares the latency and times that a runner between devices of a real server reports with measurements.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivingDevice.h"
#include "Eventually.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr double rate = 48000;

/// Looks at a value every 5 ms and returns the median.
double medianOf(const std::function<double()>& value)
{
    std::vector<double> values(101);
    for (double& each : values) {
        sleepForMilliseconds(5);
        each = value();
    }
    std::ranges::sort(values);
    return values[50];
}

CXRef<DXRDevice> connectedDevice(const std::string& uid, bool isInput)
{
    CXRef<DXRDevice> device;
    EXPECT_TRUE(eventually([&] {
        device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uid, isInput);
        return device && device->isConnected();
    }));
    return device;
}

// Each device drives a separate graph; an aggregate's ring connects them, and converters the runner's cycles.
TEST(EngineOnPipeWire, reportsTheLatencyAndTimesBetweenTwoClocks)
{
    using Device = DrivingDevice;
    const PrivateServer server;
    const TestClient client(server.remote());
    HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote()));
    constexpr double sourcePPM = 150, framesPerNanosecond = rate * (1 + sourcePPM * 1e-6) / 1e9;
    const Device source(server.remote(), "fast", Device::Direction::Source, {.partsPerMillion = sourcePPM});
    const Device sink(server.remote(), "slow", Device::Direction::Sink, {.partsPerMillion = -60});
    const CXRef<DXRDevice> in = connectedDevice("fast", true), out = connectedDevice("slow", false);
    for (const auto& [quantum, frames] : {std::pair{256U, 512U}, {512U, 64U}}) {
        SCOPED_TRACE(testing::Message() << frames << " frames at a quantum of " << quantum);
        client.setMetadata("settings", "clock.force-quantum", std::to_string(quantum));
        const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
        runner->setFrameCount(frames);
        runner->setSampleRate(rate);
        std::vector<float> received(frames);
        std::atomic<double> begin{0}; // the host time (ns) of value 0 of the ramp
        runner->addDevice(in, DXRDeviceRunner::Channels{2}, [&](uint64_t, DXRBuffer& heard) {
            std::copy_n(heard.samples(), received.size(), received.begin());
            begin =
                static_cast<double>(heard.hostTime()) - heard.samples()[0] / rampStep / framesPerNanosecond;
        });
        runner->addDevice(out, DXRDeviceRunner::Channels{2},
                          [&](uint64_t, DXRBuffer& given) { std::ranges::copy(received, given.samples()); });
        runner->start();
        sleepForMilliseconds(6000); // until the clocks are measured
        const auto reportedFrames = [&] { return runner->roundTripSeconds(in, out).value_or(0) * rate; };
        EXPECT_GT(reportedFrames(), 0.0) << "it runs";
        const double latencyError = medianOf([&] {
            const Device::Passage given = source.lastPassage(), heard = sink.lastPassage();
            return (heard.nanoseconds - given.nanoseconds) * framesPerNanosecond -
                   (heard.number - given.number) - reportedFrames();
        });
        EXPECT_NEAR(latencyError, 0.0, 1.0);
        const double timeError = medianOf([&] {
            const Device::Passage given = source.lastPassage();
            return (begin - given.nanoseconds) * framesPerNanosecond + given.number;
        });
        EXPECT_NEAR(timeError, 0.0, 1.0);
        runner->stop();
    }
}

} // namespace
