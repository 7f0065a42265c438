// A runner between devices of a real server: the latency and times that it reports, against a probe's measurement.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "DriftingDevice.h"
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
constexpr double period = 1 << 24; // of the probe's numbers, frames

CXRef<DXRDevice> waitForDevice(const std::string& uid, bool isInput)
{
    CXRef<DXRDevice> device;
    for (int looks = 0; looks < 2000 && !(device && device->isConnected()); ++looks) {
        device = DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uid, isInput);
        std::this_thread::sleep_for(10ms);
    }
    return device;
}

/// Passes the frames of a source on to a sink, and notes how far the times of the input's blocks are off.
class PassOn {
public:
    PassOn(const std::string& source, const std::string& sink, uint32_t frames, double rate)
        : _in(waitForDevice(source, true)), _out(waitForDevice(sink, false)), _heard(frames)
    {
        _errors.reserve(100'000);
        _runner->setFrameCount(frames);
        _runner->setSampleRate(rate);
        _runner->addDevice(_in, DXRDeviceRunner::Channels{1}, [this](uint64_t, DXRBuffer& buffer) {
            std::copy_n(buffer.samples(), _heard.size(), _heard.begin());
            if (buffer.samples()[0] != 0 && _errors.size() < _errors.capacity())
                _errors.push_back(_timeError(buffer));
        });
        _runner->addDevice(_out, DXRDeviceRunner::Channels{2}, [this](uint64_t, DXRBuffer& buffer) {
            std::ranges::copy(_heard, buffer.samples());
        });
        _runner->start();
    }
    ~PassOn() { _runner->stop(); }

    double reportedSeconds() const { return _runner->roundTripSeconds(_in, _out).value_or(0); }
    /// Microseconds, in ascending order, of `count` blocks from now on.
    std::vector<double> timeErrors(size_t count)
    {
        std::vector<double> errors;
        for (int looks = 0; looks < 3000 && errors.size() < count; ++looks) {
            std::this_thread::sleep_for(10ms);
            _runner->queue()->dispatchSync([&] {
                errors.insert(errors.end(), _errors.begin(), _errors.end());
                _errors.clear();
            });
        }
        std::ranges::sort(errors);
        return errors;
    }

private:
    /// A sample is the number of the time at which it was sent.
    double _timeError(const DXRBuffer& buffer) const
    {
        const double number = static_cast<double>(buffer.samples()[0]) * period;
        const double now = std::fmod(static_cast<double>(buffer.hostTime()) * 1e-9 * serverRate, period);
        const double off = std::remainder(now - number, period);
        return std::abs(off) / serverRate * 1e6;
    }

    const CXRef<DXRDevice> _in, _out;
    const CXRef<DXRDeviceRunner> _runner = DXRDeviceRunner::init();
    std::vector<float> _heard;
    std::vector<double> _errors;
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

// A device that drives the server takes its frames a cycle before, and gives them a cycle after, as its time stamps have it;
// a virtual one that follows has no buffer of its own.
TEST_F(EngineOnPipeWire, reportsTheLatencyThatAProbeMeasures)
{
    std::printf("round trip in frames            runner device reported  measured\n");
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
                    probe.measure(20); // by then every loop has found its pace
                    const std::vector<double> late = probe.measure(41);
                    ASSERT_EQ(late.size(), 41U);
                    const double measured = late[20] + (isOneDevice ? 0 : quantum);
                    const double reported = runner.reportedSeconds() * rate;
                    std::printf("%-11s at %5.1f kHz %13u %6u %8.1f  %8.1f\n",
                                isOneDevice ? "one device" : "two devices", rate / 1000, frames, quantum,
                                reported, measured);
                    EXPECT_NEAR(reported, measured, 1.0);
                }
            }
        }
    }
}

// Each device drives a graph of its own; between the two is an aggregate's ring.
TEST_F(EngineOnPipeWire, reportsTheLatencyBetweenTwoClocks)
{
    using Drifting = DriftingDevice;
    constexpr double sourcePPM = 150, framesPerNanosecond = serverRate * (1 + sourcePPM * 1e-6) / 1e9;
    const Drifting source(server.remote(), "fast", Drifting::Direction::Source, sourcePPM);
    const Drifting sink(server.remote(), "slow", Drifting::Direction::Sink, -60);
    for (const uint32_t quantum : {256U, 512U}) {
        force("quantum", quantum);
        const PassOn runner("fast", "slow", quantum, serverRate);
        std::this_thread::sleep_for(6s); // until the clocks are known
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
        std::printf("two clocks at 48.0 kHz %17u %6u %8.1f  %8.1f\n", quantum, quantum, reported[50],
                    late[50]);
        EXPECT_GT(reported[50], 0.0) << "it runs";
        EXPECT_NEAR(reported[50], late[50], 1.0);
    }
}

TEST_F(EngineOnPipeWire, reportsWhenABlocksFramesWereReceived)
{
    force("quantum", 256);
    LatencyProbe probe(client, {"duplex", "playback_FL"}, {"duplex", "capture_FR"}, serverRate);
    PassOn runner("duplex", "duplex", 256, serverRate);
    runner.timeErrors(200);
    const std::vector<double> errors = runner.timeErrors(1000);
    ASSERT_GE(errors.size(), 1000U);
    std::printf("time of a block on the server: off by %.1f us median, %.1f us worst\n",
                errors[errors.size() / 2], errors.back());
    EXPECT_LT(errors[errors.size() / 2], 20);
}

} // namespace
