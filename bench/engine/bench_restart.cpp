// How long is the interruption when a device is unplugged and plugged in again? Two devices are combined, and
// each is unplugged and plugged in again twelve times, on simulated hardware and on a private PipeWire
// server. The times include everything: the hardware's notification, the manager's update, the new aggregate,
// its first cycle.

#include "Comparison.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"
#include "TestClient.h"
#include "simulated.h"

#include <array>
#include <atomic>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr uint32_t frames = 128;
constexpr double rate = 48000;
constexpr std::array names{"first", "second"}; // the first is the clock device
constexpr int trials = 12;

/// A computer whose devices can be plugged in and unplugged. Each device loops its output back to its input.
class Computer {
public:
    Computer() = default;
    virtual ~Computer() = default;
    Computer(const Computer&) = delete;
    Computer& operator=(const Computer&) = delete;
    virtual void plug(const char* name) = 0;
    virtual void unplug(const char* name) = 0;
};

class SimulatedComputer final : public Computer {
public:
    SimulatedComputer() { HALSetHardwareDriver(_backend); }
    void plug(const char* name) override
    {
        _backend->plug(aDevice().uid(name).inputs(2).outputs(2).bufferFrameSize(frames).loopsBack());
    }
    void unplug(const char* name) override { _backend->unplug(name); }

private:
    const CXRef<SimulatedHardware> _backend = SimulatedHardware::init();
};

class PipeWireComputer final : public Computer {
public:
    PipeWireComputer() { HALSetHardwareDriver(PipeWireDriver::initWithRemote(_server.remote())); }
    void plug(const char* name) override { _devices.plug({.name = name, .mediaClass = "Audio/Duplex"}); }
    void unplug(const char* name) override { _devices.unplug(name); }

private:
    PrivateServer _server;
    TestClient _devices{_server.remote()};
};

/// Records what the blocks observe: gaps between cycles, when sound arrives, changes of the sample time.
struct Watch {
    std::atomic<uint64_t> lastCycle{0}, longestGap{0}, soundAt{0}; // ns
    std::atomic<uint64_t> stepsBack{0}, jumps{0};
    std::atomic<bool> listens{false};
    uint64_t lastTime = 0;

    void cycle(uint64_t time)
    {
        const uint64_t now = nowNanoseconds();
        const uint64_t gap = now - lastCycle.exchange(now);
        longestGap = std::max(longestGap.load(), gap);
        stepsBack += time < lastTime;
        jumps += static_cast<double>(time - lastTime) > static_cast<double>(gap) * 1e-9 * rate + frames;
        lastTime = time;
    }
    void hear(const DXRBuffer& buffer)
    {
        if (!listens || buffer.samples()[0] == 0)
            return;
        soundAt = nowNanoseconds();
        listens = false; // publishes soundAt to the other thread
    }
};

void waitUntil(const std::function<bool()>& condition)
{
    while (!condition())
        std::this_thread::sleep_for(1ms);
}

void report(const char* what, std::vector<double>& milliseconds)
{
    std::ranges::sort(milliseconds);
    std::printf("    %-52s %7.2f %7.2f\n", what, percentile(milliseconds, 0.5), milliseconds.back());
}

void runOn(const char* title, Computer& computer)
{
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    runner->setFrameCount(frames);
    runner->setSampleRate(rate);
    Watch watch;
    std::atomic<const char*> awaited{names[0]};
    for (const char* const name : names) {
        computer.plug(name);
        CXRef<DXRDevice> in, out;
        waitUntil([&] {
            in = manager.deviceWithDeviceUID(name, true);
            out = manager.deviceWithDeviceUID(name, false);
            return in && out && in->channelCount() > 0 && out->channelCount() > 0;
        });
        runner->addDevice(in, std::nullopt, [&, name](uint64_t time, DXRBuffer& buffer) {
            if (name == names[0])
                watch.cycle(time);
            if (name == awaited)
                watch.hear(buffer);
        });
        runner->addDevice(out, std::nullopt, [](uint64_t, DXRBuffer& buffer) {
            std::fill_n(buffer.samples(), size_t{frames} * buffer.channelCount(), 0.25F);
        });
    }
    watch.lastCycle = nowNanoseconds();
    runner->start();
    std::printf("%s: milliseconds, median and longest of %d\n", title, trials);
    for (const char* const name : names) {
        std::vector<double> goneGaps, backGaps, sounds;
        for (int trial = 0; trial < trials; ++trial) {
            waitUntil([&] { return runner->activeDevices().size() == 4; });
            std::this_thread::sleep_for(100ms);
            watch.longestGap = 0;
            computer.unplug(name);
            waitUntil([&] { return runner->activeDevices().size() == 2; });
            std::this_thread::sleep_for(100ms);
            goneGaps.push_back(static_cast<double>(watch.longestGap.exchange(0)) * 1e-6);
            awaited = name;
            watch.listens = true;
            const uint64_t plugged = nowNanoseconds();
            computer.plug(name);
            waitUntil([&] { return !watch.listens; });
            sounds.push_back(static_cast<double>(watch.soundAt - plugged) * 1e-6);
            std::this_thread::sleep_for(100ms);
            backGaps.push_back(static_cast<double>(watch.longestGap) * 1e-6);
        }
        const std::string which = name == names[0] ? "the clock device" : "the other device";
        report(("gap between cycles, " + which + " unplugged").c_str(), goneGaps);
        report(("gap between cycles, " + which + " plugged in again").c_str(), backGaps);
        report(("from plugging " + which + " in to its sound").c_str(), sounds);
    }
    runner->stop();
    std::printf("    sample time: %llu steps back, %llu jumps beyond what was missing\n",
                static_cast<unsigned long long>(watch.stepsBack),
                static_cast<unsigned long long>(watch.jumps));
    std::fflush(stdout);
}

/// Runs in a child process, because a process has only one hardware driver.
template <class Kind> void inProcessOfItsOwn(const char* title)
{
    if (fork() == 0) {
        {
            Kind computer; // destroyed before _exit(), with its server
            runOn(title, computer);
        }
        _exit(0);
    }
    wait(nullptr);
}

} // namespace

int main()
{
    inProcessOfItsOwn<SimulatedComputer>("simulated hardware");
    inProcessOfItsOwn<PipeWireComputer>("PipeWire");
}
