// Compares the latency and times that a runner between devices of a real server reports with measurements.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivingDevice.h"
#include "Eventually.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

#include <gtest/gtest.h>

#include <algorithm>

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

/// Runs between two devices.
struct Passage {
    Passage(const std::string& source, const std::string& sink, uint32_t frames, const DXRIOBlock& hear,
            const DXRIOBlock& play)
        : in(connectedDevice(source, true)), out(connectedDevice(sink, false))
    {
        runner->setFrameCount(frames);
        runner->setSampleRate(rate);
        runner->addDevice(in, DXRDeviceRunner::Channels{2}, hear);
        runner->addDevice(out, DXRDeviceRunner::Channels{2}, play);
        runner->start();
    }
    ~Passage() { runner->stop(); }

    double reportedFrames() const { return runner->roundTripSeconds(in, out).value_or(0) * rate; }

    const CXRef<DXRDevice> in, out;
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
};

class EngineOnPipeWire : public testing::Test {
protected:
    EngineOnPipeWire() { HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote())); }
    void forceQuantum(uint32_t frames)
    {
        client.setMetadata("settings", "clock.force-quantum", std::to_string(frames));
    }

    PrivateServer server;
    TestClient client{server.remote()};
};

/// The host time (ns) of value 0 of the ramp that a block begins with.
double beginOf(const DXRBuffer& buffer, double framesPerNanosecond)
{
    return static_cast<double>(buffer.hostTime()) - buffer.samples()[0] / rampStep / framesPerNanosecond;
}

// A card records its frames one cycle earlier and plays them one cycle later. A virtual device passes on what
// it was given in the preceding cycle, so that a ramp returns one cycle sooner.
TEST_F(EngineOnPipeWire, reportsTheLatencyThatARampOfItsOwnMeasures)
{
    client.plug({.name = "duplex", .mediaClass = "Audio/Duplex"});
    for (const uint32_t quantum : {64U, 256U, 512U}) {
        forceQuantum(quantum);
        for (const uint32_t frames : {64U, 256U, 512U}) {
            SCOPED_TRACE(testing::Message() << frames << " frames at a quantum of " << quantum);
            std::atomic<double> late{0}, played{0}, returned{0};
            const Passage passage(
                "duplex", "duplex", frames,
                [&](uint64_t time, DXRBuffer& heard) {
                    late = static_cast<double>(time + 1) - heard.samples()[0] / rampStep;
                    returned = beginOf(heard, rate / 1e9);
                },
                [&](uint64_t time, DXRBuffer& given) {
                    for (uint32_t i = 0; i < given.frameCount(); ++i)
                        given.samples()[i] = rampSample(time + i);
                    played = beginOf(given, rate / 1e9);
                });
            sleepForMilliseconds(500); // until the ramp returns
            EXPECT_NEAR(medianOf([&] { return late.load(); }) + quantum, passage.reportedFrames(), 1.0);
            EXPECT_NEAR(medianOf([&] { return played - returned; }) * rate / 1e9, quantum, 1.0);
        }
    }
}

// Each device drives a separate graph; an aggregate's ring connects them.
TEST_F(EngineOnPipeWire, reportsTheLatencyAndTimesBetweenTwoClocks)
{
    using Device = DrivingDevice;
    constexpr double sourcePPM = 150, framesPerNanosecond = rate * (1 + sourcePPM * 1e-6) / 1e9;
    const Device source(server.remote(), "fast", Device::Direction::Source, {.partsPerMillion = sourcePPM});
    const Device sink(server.remote(), "slow", Device::Direction::Sink, {.partsPerMillion = -60});
    for (const uint32_t quantum : {256U, 512U}) {
        forceQuantum(quantum);
        std::vector<float> received(quantum);
        std::atomic<double> begin{0};
        const Passage passage(
            "fast", "slow", quantum,
            [&](uint64_t, DXRBuffer& heard) {
                std::copy_n(heard.samples(), quantum, received.begin());
                begin = beginOf(heard, framesPerNanosecond);
            },
            [&](uint64_t, DXRBuffer& given) { std::ranges::copy(received, given.samples()); });
        sleepForMilliseconds(6000); // until the clocks are measured
        EXPECT_GT(passage.reportedFrames(), 0.0) << "it runs";
        const double latencyError = medianOf([&] {
            const Device::Passage given = source.lastPassage(), heard = sink.lastPassage();
            return (heard.nanoseconds - given.nanoseconds) * framesPerNanosecond -
                   (heard.number - given.number) - passage.reportedFrames();
        });
        EXPECT_NEAR(latencyError, 0.0, 1.0);
        const double timeError = medianOf([&] {
            const Device::Passage given = source.lastPassage();
            return (begin - given.nanoseconds) * framesPerNanosecond + given.number;
        });
        EXPECT_NEAR(timeError, 0.0, 1.0);
    }
}

} // namespace
