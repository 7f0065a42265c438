// An application's own hardware driver: one virtual output device, whose cycles are run by a timer thread,
// and which measures the level of its output. Replace the timer by your hardware's interrupt, socket or
// callback.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <dxr/AudioHardware.h>
#include <dxr/HALHardwareDriver.h>
#include <dxr/QDL.h>
#include <numbers>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t channels = 2;

HALDeviceState describe()
{
    HALDeviceState state;
    state.uid = "example-meter";
    state.name = "Level Meter";
    state.transportType = kAudioDeviceTransportTypeVirtual;
    state.sampleRates = {{44100.0, 44100.0}, {48000.0, 48000.0}};
    state[HALDirection::Output].streams = {{.channelCount = channels}};
    return state;
}

/// The device: its thread requests `bufferFrameSize` frames at intervals that follow from the sample rate.
class MeterDriver final : public HALDeviceDriver {
public:
    explicit MeterDriver(HALDriverSink& sink) : _sink(sink) {}

    HALStatus setNominalSampleRate(double rate, HALDeadline) override
    {
        state.nominalSampleRate = rate; // the HAL has checked that it is one of state.sampleRates
        _cycle = std::chrono::nanoseconds(std::llround(1e9 * state.bufferFrameSize / rate));
        _sink.deviceChanged(*this, state);
        return kAudioHardwareNoError;
    }

    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline) override
    {
        table->prepare({}, std::vector{channels}, state.bufferFrameSize);
        table->setTiming(state.nominalSampleRate, state.bufferFrameSize);
        _isRunning = true;
        _thread = std::thread([this, table] { _run(*table); });
        return kAudioHardwareNoError;
    }

    void stopIO() override
    {
        _isRunning = false;
        if (_thread.joinable())
            _thread.join();
    }

    HALDeviceState state = describe();
    std::atomic<float> peak{0.0F};

private:
    void _run(HALIOProcTable& table)
    {
        std::vector<float> samples(channels * state.bufferFrameSize);
        const HALStreamBlock output{samples.data(), channels};
        auto due = std::chrono::steady_clock::now();
        while (_isRunning) {
            HALCycle cycle;
            cycle.frameCount = state.bufferFrameSize;
            cycle.now = cycle.inputTime = _stamp(_sampleTime, due);
            cycle.outputTime = _stamp(_sampleTime + cycle.frameCount, due + _cycle.load());
            cycle.output = {&output, 1};
            table.runCycle(cycle);
            for (const float sample : samples)
                peak = std::max(peak.load(), std::abs(sample));
            _sampleTime += cycle.frameCount;
            due += _cycle.load();
            std::this_thread::sleep_until(due);
        }
    }

    static AudioTimeStamp _stamp(uint64_t sampleTime, std::chrono::steady_clock::time_point when)
    {
        AudioTimeStamp stamp{};
        stamp.sampleTime = static_cast<double>(sampleTime);
        stamp.hostTime = static_cast<uint64_t>(when.time_since_epoch().count());
        stamp.flags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;
        return stamp;
    }

    HALDriverSink& _sink;
    std::atomic<std::chrono::nanoseconds> _cycle{std::chrono::nanoseconds(512'000'000'000 / 48000)};
    std::atomic<bool> _isRunning{false};
    uint64_t _sampleTime = 0;
    std::thread _thread;
};

/// Reports the only device.
class MeterHardware final : public HALHardwareDriver {
public:
    void start(HALDriverSink& sink) override
    {
        meter = CXRef<MeterDriver>::adopt(new MeterDriver(sink));
        sink.deviceAdded(meter, meter->state);
        sink.defaultChanged(HALDefault::Output, meter.get());
    }
    void stop() override { meter->stopIO(); }

    CXRef<MeterDriver> meter;
};

} // namespace

int main()
{
    const auto hardware = CXRef<MeterHardware>::adopt(new MeterHardware);
    HALSetHardwareDriver(hardware);
    const AudioObjectID device = QDLAudioDeviceDefaultOutputDeviceID();

    std::atomic<uint32_t> cycles{0};
    const AudioDeviceIOBlock tone = [&cycles](const AudioTimeStamp* now, const AudioBufferList*,
                                              const AudioTimeStamp*, AudioBufferList* output,
                                              const AudioTimeStamp*) {
        const AudioBuffer& buffer = output->buffers[0];
        auto* samples = static_cast<float*>(buffer.data);
        for (uint32_t i = 0; i < buffer.dataByteSize / sizeof(float); ++i)
            samples[i] = static_cast<float>(
                0.5 * std::sin(2.0 * std::numbers::pi * 440.0 * (now->sampleTime + i / channels) / 48000.0));
        ++cycles;
    };
    AudioDeviceIOProcID callback = nullptr;
    AudioDeviceCreateIOProcIDWithBlock(&callback, device, nullptr, tone);
    AudioDeviceStart(device, callback);
    while (cycles < 20)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    AudioDeviceDestroyIOProcID(device, callback);

    const float peak = hardware->meter->peak;
    std::printf("%u cycles played, peak %.2f\n", cycles.load(), static_cast<double>(peak));
    return peak > 0.49F && peak <= 0.5F ? 0 : 1;
}
