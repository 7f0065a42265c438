// Compares the latency and times that a runner between devices of a real server reports with a probe's
// measurements.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivingDevice.h"
#include "Eventually.h"
#include "LatencyProbe.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr double serverRate = 48000;
constexpr double period = 1 << 24; // frames after which the probe's numbers repeat

/// Looks at a value every 10 ms and returns the median.
double medianOf(const std::function<double()>& value)
{
    std::vector<double> values(101);
    for (double& each : values) {
        sleepForMilliseconds(10);
        each = value();
    }
    std::ranges::sort(values);
    return values[50];
}

/// Plays the frames of a source on a sink.
class PassOn {
public:
    PassOn(const std::string& source, const std::string& sink, uint32_t frames, double rate)
        : _in(_device(source, true)), _out(_device(sink, false)), _rate(rate), _received(frames)
    {
        _runner->setFrameCount(frames);
        _runner->setSampleRate(rate);
        _runner->addDevice(_in, DXRDeviceRunner::Channels{1}, [this](uint64_t, DXRBuffer& buffer) {
            std::copy_n(buffer.samples(), _received.size(), _received.begin());
            _noteTimeError(buffer);
        });
        _runner->addDevice(_out, DXRDeviceRunner::Channels{2}, [this](uint64_t, DXRBuffer& buffer) {
            std::ranges::copy(_received, buffer.samples());
        });
        _runner->start();
    }
    ~PassOn() { _runner->stop(); }

    double reportedFrames() const { return _runner->roundTripSeconds(_in, _out).value_or(0) * _rate; }
    /// The error of the host time of the last input block.
    double timeErrorMicroseconds() const { return _timeError; }

private:
    static CXRef<DXRDevice> _device(const std::string& uid, bool isInput)
    {
        CXRef<DXRDevice> device;
        EXPECT_TRUE(eventually([&] {
            device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uid, isInput);
            return device && device->isConnected();
        }));
        return device;
    }
    /// The value of a sample is its send time.
    void _noteTimeError(const DXRBuffer& buffer)
    {
        const double number = static_cast<double>(buffer.samples()[0]) * period;
        const double now = std::fmod(static_cast<double>(buffer.hostTime()) * 1e-9 * _rate, period);
        if (number != 0)
            _timeError = std::abs(std::remainder(now - number, period)) / _rate * 1e6;
    }

    const CXRef<DXRDevice> _in, _out;
    const CXRef<DXRDeviceRunner> _runner = DXRDeviceRunner::init();
    const double _rate;
    std::vector<float> _received;
    std::atomic<double> _timeError{1e9};
};

class EngineOnPipeWire : public testing::Test {
protected:
    EngineOnPipeWire() { HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote())); }
    void force(const std::string& what, uint32_t value)
    {
        client.setMetadata("settings", "clock.force-" + what, std::to_string(value));
    }

    PrivateServer server;
    TestClient client{server.remote()};
};

// A device that drives the server records its frames one cycle earlier and plays them one cycle later, as its
// time stamps state; a virtual device that follows has no buffer.
TEST_F(EngineOnPipeWire, reportsTheLatencyAndTimesThatAProbeMeasures)
{
    client.plug({.name = "duplex", .mediaClass = "Audio/Duplex"});
    client.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    client.plug({.name = "sink"});
    for (const double rate : {48000.0, 44100.0}) {
        force("rate", static_cast<uint32_t>(rate));
        for (const uint32_t quantum : {64U, 256U, 512U}) {
            force("quantum", quantum);
            for (const bool isOneDevice : {true, false}) {
                const std::string source = isOneDevice ? "duplex" : "source",
                                  sink = isOneDevice ? "duplex" : "sink";
                LatencyProbe probe(client, {source, isOneDevice ? "playback_FL" : "input_FL"},
                                   {sink, isOneDevice ? "capture_FR" : "monitor_FR"}, rate);
                for (const uint32_t frames : {64U, 256U, 512U}) {
                    SCOPED_TRACE(testing::Message()
                                 << rate << " Hz, " << frames << " frames at a quantum of " << quantum);
                    const PassOn runner(source, sink, frames, rate);
                    probe.measure(20); // until all control loops have settled
                    const std::vector<double> late = probe.measure(41);
                    ASSERT_EQ(late.size(), 41U);
                    EXPECT_NEAR(runner.reportedFrames(), late[20] + (isOneDevice ? 0 : quantum), 1.0);
                    if (isOneDevice && frames == 256 && quantum == 256) {
                        EXPECT_LT(medianOf([&] { return runner.timeErrorMicroseconds(); }), 20);
                    }
                }
            }
        }
    }
}

// Each device drives a separate graph; an aggregate's ring connects them.
TEST_F(EngineOnPipeWire, reportsTheLatencyBetweenTwoClocks)
{
    using Drifting = DrivingDevice;
    constexpr double sourcePPM = 150, framesPerNanosecond = serverRate * (1 + sourcePPM * 1e-6) / 1e9;
    const Drifting source(server.remote(), "fast", Drifting::Direction::Source,
                          {.partsPerMillion = sourcePPM});
    const Drifting sink(server.remote(), "slow", Drifting::Direction::Sink, {.partsPerMillion = -60});
    for (const uint32_t quantum : {256U, 512U}) {
        force("quantum", quantum);
        const PassOn runner("fast", "slow", quantum, serverRate);
        sleepForMilliseconds(6000); // until the clocks are measured
        EXPECT_GT(runner.reportedFrames(), 0.0) << "it runs";
        const double error = medianOf([&] {
            const Drifting::Passage given = source.lastPassage(), heard = sink.lastPassage();
            return (heard.nanoseconds - given.nanoseconds) * framesPerNanosecond -
                   (heard.number - given.number) - runner.reportedFrames();
        });
        EXPECT_NEAR(error, 0.0, 1.0);
    }
}

} // namespace
