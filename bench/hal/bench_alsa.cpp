// What does a cycle of the ALSA driver cost the IO thread, compared with the shortest loop over alsa-lib that
// does the same: wait, read the input as floats, copy it, write it? Both use faked cards, which cost the same
// for both.
#include "AlsaDriver.h"
#include "FakedCards.h"
#include "HALModel.h"
#include "RealtimeScheduling.h"
#include "Thread.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t rate = 48000;
constexpr uint32_t channels = 2;
constexpr int rounds = 5;
constexpr double seconds = 2.0;

double threadNanoseconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/// Measures a thread's CPU time per cycle, from its first cycle to its last.
struct Cost {
    void note()
    {
        const double now = threadNanoseconds();
        if (cycles++ == 0)
            first = now;
        last = now;
    }
    double perCycle() const { return (last - first) / (cycles - 1); }
    int cycles = 0;
    double first = 0.0, last = 0.0;
};

snd_pcm_t* open(int card, snd_pcm_stream_t stream, snd_pcm_uframes_t frames)
{
    snd_pcm_t* pcm = nullptr;
    snd_pcm_open(&pcm, ("hw:" + std::to_string(card)).c_str(), stream, SND_PCM_NONBLOCK);
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    snd_pcm_hw_params_any(pcm, hardware);
    snd_pcm_hw_params_set_access(pcm, hardware, SND_PCM_ACCESS_MMAP_INTERLEAVED);
    snd_pcm_hw_params_set_format(pcm, hardware, SND_PCM_FORMAT_S32);
    snd_pcm_hw_params_set_channels(pcm, hardware, channels);
    snd_pcm_hw_params_set_rate(pcm, hardware, rate, 0);
    snd_pcm_hw_params_set_period_size(pcm, hardware, frames, 0);
    snd_pcm_hw_params_set_buffer_size(pcm, hardware, frames * 3);
    snd_pcm_hw_params(pcm, hardware);
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_sw_params_current(pcm, software);
    snd_pcm_sw_params_set_start_threshold(pcm, software, frames * 1000);
    snd_pcm_sw_params_set_avail_min(pcm, software, frames);
    snd_pcm_sw_params(pcm, software);
    return pcm;
}

/// Moves frames between the ring buffer and `samples`, converting with a plain loop.
void move(snd_pcm_t* pcm, float* samples, snd_pcm_uframes_t frames, bool isInput)
{
    while (frames > 0) {
        const snd_pcm_channel_area_t* areas = nullptr;
        snd_pcm_uframes_t offset = 0, count = frames;
        if (snd_pcm_mmap_begin(pcm, &areas, &offset, &count) < 0 || count == 0)
            return;
        auto* const ring = static_cast<int32_t*>(areas[0].addr) + offset * channels;
        for (size_t i = 0; i < count * channels; ++i) {
            if (isInput)
                samples[i] = static_cast<float>(ring[i]) * (1.0F / 2147483648.0F);
            else
                ring[i] = static_cast<int32_t>(std::clamp(samples[i], -1.0F, 0.9999999F) * 2147483648.0F);
        }
        snd_pcm_mmap_commit(pcm, offset, count);
        samples += count * channels;
        frames -= count;
    }
}

double bareLoop(int card, uint32_t frames)
{
    snd_pcm_t* const input = open(card, SND_PCM_STREAM_CAPTURE, frames);
    snd_pcm_t* const output = open(card, SND_PCM_STREAM_PLAYBACK, frames);
    snd_pcm_link(input, output);
    std::vector<float> in(frames * channels), out(frames * channels);
    for (int i = 0; i < 3; ++i)
        move(output, out.data(), frames, false);
    snd_pcm_start(input);
    Cost cost;
    const auto wanted = static_cast<int>(seconds * rate / frames);
    while (cost.cycles < wanted) {
        pollfd files[2];
        snd_pcm_poll_descriptors(input, &files[0], 1);
        snd_pcm_poll_descriptors(output, &files[1], 1);
        while (snd_pcm_avail_update(input) < frames)
            poll(&files[0], 1, 1000);
        while (snd_pcm_avail_update(output) < frames)
            poll(&files[1], 1, 1000);
        snd_pcm_uframes_t available = 0;
        snd_htimestamp_t stamp{};
        snd_pcm_htimestamp(input, &available, &stamp);
        move(input, in.data(), frames, true);
        std::memcpy(out.data(), in.data(), in.size() * sizeof(float));
        cost.note();
        move(output, out.data(), frames, false);
    }
    snd_pcm_close(output);
    snd_pcm_close(input);
    return cost.perCycle();
}

double driver(HALModel& hal, AudioObjectID device, uint32_t frames)
{
    const AudioObjectPropertyAddress size{kAudioDevicePropertyBufferFrameSize,
                                          kAudioObjectPropertyScopeGlobal, 0};
    hal.writeProperty(device, size, {}, std::as_bytes(std::span(&frames, 1)));
    Cost cost; // accessed by the IO thread
    std::atomic<bool> isDone{false};
    const auto wanted = static_cast<int>(seconds * rate / frames);
    AudioDeviceIOProcID proc = nullptr;
    hal.createIOProc(
        device,
        [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*, AudioBufferList* out,
            const AudioTimeStamp*) {
            std::memcpy(out->buffers[0].data, in->buffers[0].data, in->buffers[0].dataByteSize);
            if (!isDone) {
                cost.note();
                isDone = cost.cycles >= wanted;
            }
        },
        proc);
    hal.start(device, proc);
    while (!isDone)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    hal.destroyIOProc(device, proc);
    return cost.perCycle();
}

FakedCardOptions cardNamed(const char* name)
{
    FakedCardOptions card;
    card.longName = name;
    return card;
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

} // namespace

int main()
{
    const int bareCard = FakedCards::plug(cardNamed("bare"));
    const auto hal = HALModel::initWithDriver(AlsaDriver::init(3, "/nowhere"));
    FakedCards::plug(cardNamed("driver"));
    std::vector<AudioObjectID> devices(8);
    for (uint32_t size = 0; size != 2 * sizeof(AudioObjectID);) {
        const AudioObjectPropertyAddress list{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                                              0};
        hal->readProperty(kAudioObjectSystemObject, list, {}, std::as_writable_bytes(std::span(devices)),
                          size);
    }
    std::printf("%-8s %14s %14s %7s\n", "frames", "bare ns/cycle", "driver", "ratio");
    for (const uint32_t frames : {64U, 256U, 1024U}) {
        std::vector<double> bare, ours, ratios;
        for (int round = 0; round < rounds; ++round) {
            // With real-time scheduling, like the driver's thread.
            dxr::Thread("bare", [&] {
                dxr::makeCurrentThreadRealtime();
                bare.push_back(bareLoop(bareCard, frames));
            }).join();
            ours.push_back(driver(*hal, devices[1], frames));
            ratios.push_back(ours.back() / bare.back());
        }
        std::printf("%-8u %14.0f %14.0f %7.2f\n", frames, median(bare), median(ours), median(ratios));
    }
}
