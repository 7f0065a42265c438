// Compares the latency and times that a runner between devices of a real server reports with a probe's
// measurements.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DrivingDevice.h"
#include "LatencyProbe.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr double serverRate = 48000;
constexpr double period = 1 << 24; // frames after which the probe's numbers repeat

CXRef<DXRDevice> waitForDevice(const std::string& uid, bool isInput)
{
    CXRef<DXRDevice> device;
    for (int looks = 0; looks < 2000 && !(device && device->isConnected()); ++looks) {
        device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uid, isInput);
        std::this_thread::sleep_for(10ms);
    }
    return device;
}

/// Plays the frames of a source on a sink.
class PassOn {
public:
    PassOn(const std::string& source, const std::string& sink, uint32_t frames, double rate)
        : _in(waitForDevice(source, true)), _out(waitForDevice(sink, false)), _received(frames)
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

    double reportedSeconds() const { return _runner->roundTripSeconds(_in, _out).value_or(0); }
    /// The error of the host time of the last input block.
    double timeErrorMicroseconds() const { return _timeError; }

private:
    /// The value of a sample is its send time.
    void _noteTimeError(const DXRBuffer& buffer)
    {
        const double number = static_cast<double>(buffer.samples()[0]) * period;
        const double now = std::fmod(static_cast<double>(buffer.hostTime()) * 1e-9 * serverRate, period);
        if (number != 0)
            _timeError = std::abs(std::remainder(now - number, period)) / serverRate * 1e6;
    }

    const CXRef<DXRDevice> _in, _out;
    const CXRef<DXRDeviceRunner> _runner = DXRDeviceRunner::init();
    std::vector<float> _received;
    std::atomic<double> _timeError{1e9};
};

class EngineOnPipeWire : public testing::Test {
protected:
    EngineOnPipeWire()
    {
        HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote()));
        client.plug({.name = "duplex", .mediaClass = "Audio/Duplex"});
        client.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
        client.plug({.name = "sink"});
    }
    void force(const std::string& what, uint32_t value)
    {
        client.setMetadata("settings", "clock.force-" + what, std::to_string(value));
    }

    PrivateServer server;
    TestClient client{server.remote()};
};

// A device that drives the server records its frames one cycle earlier and plays them one cycle later, as its
// time stamps state; a virtual device that follows has no buffer.
TEST_F(EngineOnPipeWire, reportsTheLatencyThatAProbeMeasures)
{
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
                    const PassOn runner(source, sink, frames, rate);
                    probe.measure(20); // until all control loops have settled
                    const std::vector<double> late = probe.measure(41);
                    ASSERT_EQ(late.size(), 41U);
                    const double measured = late[20] + (isOneDevice ? 0 : quantum);
                    const double reported = runner.reportedSeconds() * rate;
                    EXPECT_NEAR(reported, measured, 1.0)
                        << rate << " Hz, " << frames << " frames at a quantum of " << quantum;
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
        std::this_thread::sleep_for(6s); // until the clocks are measured
        std::vector<double> late, reported;
        for (int looks = 0; looks < 101; ++looks) {
            std::this_thread::sleep_for(10ms);
            const Drifting::Passage given = source.lastPassage(), heard = sink.lastPassage();
            late.push_back((heard.nanoseconds - given.nanoseconds) * framesPerNanosecond -
                           (heard.number - given.number));
            reported.push_back(runner.reportedSeconds() * serverRate);
        }
        std::ranges::sort(late);
        std::ranges::sort(reported);
        EXPECT_GT(reported[50], 0.0) << "it runs";
        EXPECT_NEAR(reported[50], late[50], 1.0);
    }
}

TEST_F(EngineOnPipeWire, reportsWhenABlocksFramesWereReceived)
{
    force("quantum", 256);
    LatencyProbe probe(client, {"duplex", "playback_FL"}, {"duplex", "capture_FR"}, serverRate);
    const PassOn runner("duplex", "duplex", 256, serverRate);
    std::this_thread::sleep_for(1s);
    std::vector<double> errors;
    for (int looks = 0; looks < 201; ++looks) {
        std::this_thread::sleep_for(10ms);
        errors.push_back(runner.timeErrorMicroseconds());
    }
    std::ranges::sort(errors);
    EXPECT_LT(errors[100], 20);
}

} // namespace
