// Records the default input into a file for three seconds, while it plays a tone on the default output:
// record_while_playing FILE.wav
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <dxr/DXRDeviceManager.h>
#include <dxr/DXRDeviceRunner.h>
#include <fstream>
#include <numbers>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t rate = 48000, frames = 3 * rate;

/// The header of a WAV file with one channel of 32-bit floats.
struct WaveHeader {
    char riff[4] = {'R', 'I', 'F', 'F'};
    uint32_t size = 36 + frames * 4;
    char waveAndFormat[8] = {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '};
    uint32_t formatSize = 16;
    uint16_t encoding = 3, channels = 1; // 3: floats
    uint32_t framesPerSecond = rate, bytesPerSecond = rate * 4;
    uint16_t bytesPerFrame = 4, bitsPerSample = 32;
    char data[4] = {'d', 'a', 't', 'a'};
    uint32_t dataSize = frames * 4;
};
static_assert(sizeof(WaveHeader) == 44);

} // namespace

int main(int argc, char** argv)
{
    const DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    const CXRef<DXRDevice> input = manager.defaultInputDevice(), output = manager.defaultOutputDevice();
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    if (argc != 2 || !input || !output || !runner) {
        std::fputs("usage: record_while_playing FILE.wav, with an input and an output device\n", stderr);
        return 1;
    }
    // Allocate all memory before the first cycle: the blocks run in real time and must not allocate.
    std::vector<float> recording(frames);
    std::atomic<size_t> recorded{0}; // frames; written by the block, read by the loop below
    runner->setSampleRate(rate);     // the devices may run at other rates
    runner->addDevice(input, DXRDeviceRunner::Channels{1}, [&](uint64_t, DXRBuffer& buffer) {
        const size_t done = recorded.load(std::memory_order_relaxed);
        const size_t count = std::min<size_t>(buffer.frameCount(), recording.size() - done);
        std::copy_n(buffer.samples(), count, recording.begin() + static_cast<std::ptrdiff_t>(done));
        recorded.store(done + count, std::memory_order_release);
    });
    runner->addDevice(output, std::nullopt, [](uint64_t sampleTime, DXRBuffer& buffer) {
        for (uint32_t i = 0; i < buffer.frameCount() * buffer.channelCount(); ++i) {
            const auto time = static_cast<double>(sampleTime + i / buffer.channelCount()) / rate;
            buffer.samples()[i] = static_cast<float>(0.1 * std::sin(2.0 * std::numbers::pi * 440.0 * time));
        }
    });
    runner->start(); // if a device disappears, silence is recorded until it returns
    for (int tenths = 0; tenths < 100 && recorded.load(std::memory_order_acquire) < frames; ++tenths)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    runner->stop();

    const WaveHeader header;
    std::ofstream file(argv[1], std::ios::binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof header);
    file.write(reinterpret_cast<const char*>(recording.data()), header.dataSize);
    return file.flush() ? 0 : 1;
}
