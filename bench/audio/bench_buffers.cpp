// What does it cost to copy, mix and convert a sample, in the first-level cache and in memory? Compared with
// libswresample, a plain loop over a function for one sample, memcpy of the same number of bytes, and loops
// with the fewest instructions possible.

#include "BareLoops.h"
#include "Contest.h"
#include "DXRBuffer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr uint32_t channels = 2;

float mixed(float a, float b)
{
    const float sum = a + b;
    return sum < -1 ? -1 : sum > 1 ? 1 : sum;
}

int16_t toInt16(float x)
{
    if (x < 0)
        return static_cast<int16_t>(x * 32768 < -32768 ? -32768 : x * 32768 - 0.5F);
    return static_cast<int16_t>(x * 32767 > 32767 ? 32767 : x * 32767 + 0.5F);
}

float fromInt16(int16_t v)
{
    return static_cast<float>(v) * (v < 0 ? 3.0517578e-5F : 3.051851e-5F);
}

int16_t mixedInt16(float x, int16_t v)
{
    const int sum = toInt16(x) + v;
    return static_cast<int16_t>(sum > 32767 ? 32767 : sum < -32767 ? -32768 : sum);
}

/// A buffer and other memory for one block length.
struct Memory {
    explicit Memory(uint32_t frames)
        : count(size_t{frames} * channels), buffer(DXRBuffer::initWithSampleRate(48000, frames, channels)),
          floats(count), shorts(count)
    {
        for (size_t i = 0; i < count; ++i) {
            buffer->samples()[i] = static_cast<float>(std::sin(0.01 * static_cast<double>(i)));
            floats[i] = 1e-3F * buffer->samples()[i];
            shorts[i] = static_cast<int16_t>(i * 7);
        }
        for (uint32_t c = 0; c < channels; ++c) {
            planes[c] = floats.data() + size_t{c} * frames;
            shortPlanes[c] = shorts.data() + size_t{c} * frames;
        }
    }
    const size_t count;
    const CXRef<DXRBuffer> buffer;
    std::vector<float> floats;
    std::vector<int16_t> shorts;
    float* planes[channels];
    int16_t* shortPlanes[channels];
};

/// Copies of one block's samples, aligned to a vector.
struct AlignedMemory {
    explicit AlignedMemory(const Memory& memory)
        : floats(aligned<float>(memory.count)), sums(aligned<float>(memory.count)),
          shorts(aligned<int16_t>(memory.count))
    {
        std::copy_n(memory.buffer->samples(), memory.count, floats.get());
        std::copy_n(memory.floats.data(), memory.count, sums.get());
        std::copy_n(memory.shorts.data(), memory.count, shorts.get());
    }

    template <class Sample> using Array = std::unique_ptr<Sample, decltype(&std::free)>;
    template <class Sample> static Array<Sample> aligned(size_t count)
    {
        return {static_cast<Sample*>(std::aligned_alloc(64, count * sizeof(Sample))), std::free};
    }
    const Array<float> floats, sums;
    const Array<int16_t> shorts;
};

/// libswresample between two sample formats at one rate.
class Converter {
public:
    Converter(AVSampleFormat from, AVSampleFormat to)
    {
        AVChannelLayout layout;
        av_channel_layout_default(&layout, channels);
        if (swr_alloc_set_opts2(&_context, &layout, to, 48000, &layout, from, 48000, 0, nullptr) != 0 ||
            swr_init(_context) < 0)
            throw std::runtime_error("swresample");
    }
    ~Converter() { swr_free(&_context); }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    void run(const void* const* from, void* const* to, uint32_t frames)
    {
        swr_convert(_context, reinterpret_cast<uint8_t**>(const_cast<void**>(to)), static_cast<int>(frames),
                    reinterpret_cast<const uint8_t**>(const_cast<const void**>(from)),
                    static_cast<int>(frames));
    }

private:
    SwrContext* _context = nullptr;
};

using Work = std::function<void()>;
struct Operation {
    const char* name;
    Work ours, plain, peer; // `peer` may be empty
    size_t bytesPerSample;  // read and written
    Work bare = {};         // may be empty
};

std::vector<Operation> operations(Memory& m, const AlignedMemory& alignedMemory, uint32_t frames,
                                  std::vector<std::unique_ptr<Converter>>& converters)
{
    DXRBuffer* const buffer = m.buffer.get();
    float* const own = buffer->samples();
    const auto peer = [&](AVSampleFormat from, AVSampleFormat to, std::vector<const void*> in,
                          std::vector<void*> out) {
        converters.push_back(std::make_unique<Converter>(from, to));
        return [=, converter = converters.back().get()] { converter->run(in.data(), out.data(), frames); };
    };
    Memory* const all = &m;
    const AlignedMemory* const bare = &alignedMemory;
    return {
        {"copy",
         [=] { buffer->copyToInterleavedFloats(all->floats.data()); },
         [=] {
             for (size_t i = 0; i < all->count; ++i)
                 all->floats[i] = own[i];
         },
         {},
         8},
        {"mix",
         [=] { buffer->mixToInterleavedFloats(all->floats.data()); },
         [=] {
             for (size_t i = 0; i < all->count; ++i)
                 all->floats[i] = mixed(own[i], all->floats[i]);
         },
         {},
         12,
         [=] { bareMix(bare->floats.get(), bare->sums.get(), all->count); }},
        {"to 16", [=] { buffer->copyToInterleavedInt16s(all->shorts.data()); },
         [=] {
             for (size_t i = 0; i < all->count; ++i)
                 all->shorts[i] = toInt16(own[i]);
         },
         peer(AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16, {own}, {m.shorts.data()}), 6,
         [=] { bareToInt16(bare->floats.get(), bare->shorts.get(), all->count); }},
        {"from 16", [=] { buffer->copyFromInterleavedInt16s(all->shorts.data()); },
         [=] {
             for (size_t i = 0; i < all->count; ++i)
                 own[i] = fromInt16(all->shorts[i]);
         },
         peer(AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLT, {m.shorts.data()}, {own}), 6,
         [=] { bareFromInt16(bare->shorts.get(), bare->floats.get(), all->count); }},
        {"mix to 16",
         [=] { buffer->mixToInterleavedInt16s(all->shorts.data()); },
         [=] {
             for (size_t i = 0; i < all->count; ++i)
                 all->shorts[i] = mixedInt16(own[i], all->shorts[i]);
         },
         {},
         8},
        {"to planes", [=] { buffer->copyToDeinterleavedFloats(all->planes); },
         [=] {
             for (uint32_t c = 0; c < channels; ++c)
                 for (uint32_t k = 0; k < frames; ++k)
                     all->planes[c][k] = own[size_t{k} * channels + c];
         },
         peer(AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_FLTP, {own}, {m.planes[0], m.planes[1]}), 8},
        {"from planes", [=] { buffer->copyFromDeinterleavedFloats(all->planes); },
         [=] {
             for (uint32_t c = 0; c < channels; ++c)
                 for (uint32_t k = 0; k < frames; ++k)
                     own[size_t{k} * channels + c] = all->planes[c][k];
         },
         peer(AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLT, {m.planes[0], m.planes[1]}, {own}), 8},
        {"16 planes", [=] { buffer->copyToDeinterleavedInt16s(all->shortPlanes); },
         [=] {
             for (uint32_t c = 0; c < channels; ++c)
                 for (uint32_t k = 0; k < frames; ++k)
                     all->shortPlanes[c][k] = toInt16(own[size_t{k} * channels + c]);
         },
         peer(AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P, {own}, {m.shortPlanes[0], m.shortPlanes[1]}), 6},
    };
}

void printTable(const char* title, uint32_t frames)
{
    Memory memory(frames);
    std::vector<char> from(memory.count * 6), to(memory.count * 6);
    std::vector<std::unique_ptr<Converter>> converters;
    FigureTable table(std::string("buffers, ") + title + ": ns per sample");
    const AlignedMemory alignedMemory(memory);
    const std::vector<std::string> names = {"dxr", "plain loop", "memcpy of the bytes", "fewest instructions",
                                            "libswresample"};
    for (const Operation& operation : operations(memory, alignedMemory, frames, converters)) {
        Contest contest;
        const auto add = [&](const char* name, Work work) {
            contest.add(name, [count = memory.count, work] {
                work();
                return uint64_t{count};
            });
        };
        add("dxr", operation.ours);
        add("plain loop", operation.plain);
        const size_t bytes = memory.count * operation.bytesPerSample / 2;
        add("memcpy of the bytes", [&, bytes] {
            std::memcpy(to.data(), from.data(), bytes);
            asm volatile("" : : "r"(to.data()) : "memory");
        });
        const bool hasBare = operation.bare && hasBareLoops();
        if (hasBare)
            add("fewest instructions", operation.bare);
        if (operation.peer)
            add("libswresample", operation.peer);
        std::vector<double> figures = contest.run();
        const double none = std::numeric_limits<double>::quiet_NaN();
        if (!hasBare)
            figures.insert(figures.begin() + 3, none);
        figures.resize(names.size(), none);
        table.addColumn(operation.name, names, figures);
    }
    table.print("", 3);
}

} // namespace

int main()
{
    printTable("2 channels of 512 frames, in cache", 512);
    printTable("2 channels of 4194304 frames, out of cache", 1 << 22);
}
