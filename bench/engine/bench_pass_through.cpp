// What is the latency from device to device, and what does it cost the audio thread, compared with a bare
// JACK client, pw-loopback, PortAudio and RtAudio on the same private server? The engine's outputs are one
// buffer late by design. The CPU time per cycle is that of the whole audio thread, including wake-ups and
// PipeWire's work, which every client has; for pw-loopback it is that of the process. Each figure is a median
// over one and a half seconds.

#include "Contest.h"
#include "LatencyProbe.h"
#include "PassThrough.h"
#include "TestClient.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace {

constexpr double rate = 48000;
constexpr double seconds = 1.5;

/// Returns the latency in frames (the median and the 95th percentile), the microseconds of CPU time per
/// cycle, and the wake-ups per cycle.
std::vector<double> measure(const PassThroughMaker& maker, const Passage& passage, LatencyProbe& probe)
{
    std::vector<double> figures(4, std::nan(""));
    try {
        const std::unique_ptr<PassThrough> candidate = maker.make(passage);
        std::this_thread::sleep_for(std::chrono::seconds(1)); // every control loop has settled by then
        const PassThrough::Usage before = candidate->usage();
        const auto latencies = probe.measure(static_cast<size_t>(seconds * rate / passage.frameCount));
        const PassThrough::Usage after = candidate->usage();
        if (!latencies.empty()) {
            figures[0] = latencies[latencies.size() / 2];
            figures[1] = latencies[latencies.size() * 95 / 100];
        }
        if (after.cycles > before.cycles) {
            const auto cycles = static_cast<double>(after.cycles - before.cycles);
            figures[2] = static_cast<double>(after.nanoseconds - before.nanoseconds) / 1000 / cycles;
            figures[3] = static_cast<double>(after.wakeUps - before.wakeUps) / cycles;
        }
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s: %s\n", maker.name, exception.what());
    }
    return figures;
}

void compare(const Passage& passage)
{
    const bool isOneDevice = passage.source == passage.sink;
    LatencyProbe probe(passage.client, {passage.source, isOneDevice ? "playback_FL" : "input_FL"},
                       {passage.sink, isOneDevice ? "capture_FR" : "monitor_FR"}, passage.rate);
    std::vector<std::string> names;
    std::vector<double> columns[4];
    for (const PassThroughMaker& maker : passThroughMakers()) {
        if (maker.needsOneDevice && !isOneDevice)
            continue;
        const std::vector<double> figures = measure(maker, passage, probe);
        names.emplace_back(maker.name);
        for (size_t i = 0; i < figures.size(); ++i)
            columns[i].push_back(figures[i]);
    }
    FigureTable table(std::to_string(passage.frameCount) + " frames, " +
                      (isOneDevice ? "in and out of one device" : "from one device to another"));
    table.addColumn("late", names, columns[0]);
    table.addColumn("at 95 %", names, columns[1]);
    table.addColumn("us of CPU", names, columns[2]);
    table.addColumn("wake-ups", names, columns[3]);
    table.print("", 1);
}

} // namespace

int main()
{
    PrivateServer server;
    TestClient devices(server.remote());
    devices.plug({.name = "duplex", .mediaClass = "Audio/Duplex"});
    devices.plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    devices.plug({.name = "sink"});
    for (const uint32_t frameCount : {64U, 128U, 512U}) {
        devices.setMetadata("settings", "clock.force-quantum", std::to_string(frameCount));
        compare({server, devices, "duplex", "duplex", frameCount, rate});
        compare({server, devices, "source", "sink", frameCount, rate});
    }
}
