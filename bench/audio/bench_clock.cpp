// What does a conversion between host time and sample time cost, compared with the one division that it needs
// and with double precision? And how often is the double-precision result wrong?

#include "Contest.h"
#include "auclock.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>

namespace {

constexpr double rate = 44100;
constexpr uint64_t epoch = 1'000'000'007;
constexpr size_t count = 1024;
const std::unique_ptr<auclock, decltype(&auclock_destroy)> theClock(auclock_create(epoch, 0, rate),
                                                                    auclock_destroy);

[[gnu::noinline]] uint64_t doubleSampleTime(uint64_t abstime)
{
    return static_cast<uint64_t>(
        std::floor(static_cast<double>(abstime - epoch) * (rate / 1e9) + 22050 / 1e9));
}

[[gnu::noinline]] uint64_t doubleAbstime(uint64_t sampletime)
{
    return static_cast<uint64_t>(std::floor(static_cast<double>(sampletime) * (1e9 / rate) + 5e8 / rate)) +
           epoch;
}

/// The dividend of a conversion: 128 bits, divided by 64.
struct Division {
    uint64_t high, low;
};

// The peers get the same conditions as a conversion: divisors known only at run time, and no inlining.
[[gnu::noinline]] uint64_t bareQuotient(const Division& dividend, uint64_t divisor)
{
#ifdef __x86_64__
    uint64_t low = dividend.low, high = dividend.high;
    asm("divq %2" : "+a"(low), "+d"(high) : "r"(divisor) : "cc");
    return low;
#else
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>((static_cast<Wide>(dividend.high) << 64 | dividend.low) / divisor);
#endif
}

[[gnu::noinline]] uint64_t libraryQuotient(const Division& dividend, uint64_t divisor)
{
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>((static_cast<Wide>(dividend.high) << 64 | dividend.low) / divisor);
}

std::vector<Division> dividends(const std::vector<uint64_t>& distances, uint64_t multiplier, uint64_t bias)
{
    __extension__ using Wide = unsigned __int128;
    std::vector<Division> all;
    for (const uint64_t distance : distances) {
        const Wide scaled = static_cast<Wide>(distance) * multiplier + bias;
        all.push_back({static_cast<uint64_t>(scaled >> 64), static_cast<uint64_t>(scaled)});
    }
    return all;
}

/// Times `convert` over all inputs.
template <class Input, class Convert>
std::function<uint64_t()> over(const std::vector<Input>& inputs, Convert convert)
{
    return [&inputs, convert] {
        for (const Input& input : inputs) {
            const uint64_t result = convert(input);
            asm volatile("" : : "r"(result));
        }
        return uint64_t{count};
    };
}

void printSpeed()
{
    std::mt19937_64 random(1);
    std::vector<uint64_t> ticks(count), samples(count);
    for (size_t i = 0; i < count; ++i) {
        samples[i] = random() % (44100ULL * 86400 * 30);
        ticks[i] = epoch + samples[i] * 22675;
    }
    uint64_t billion = 1'000'000'000, samplesPerSecond = 44100;
    asm volatile("" : "+r"(billion), "+r"(samplesPerSecond)); // not constants
    std::vector<uint64_t> distances(count);
    std::ranges::transform(ticks, distances.begin(), [](uint64_t tick) { return tick - epoch; });
    const std::vector<Division> sampleDividends = dividends(distances, samplesPerSecond, 22050),
                                tickDividends = dividends(samples, billion, billion / 2);
    FigureTable table("sample clock: ns per conversion");
    Contest toSamples, toTicks;
    toSamples.add("dxr",
                  over(ticks, [](uint64_t t) { return auclock_abstime_to_sampletime(theClock.get(), t); }));
    toSamples.add("bare division",
                  over(sampleDividends, [=](const Division& d) { return bareQuotient(d, billion); }));
    toSamples.add("128-bit library division",
                  over(sampleDividends, [=](const Division& d) { return libraryQuotient(d, billion); }));
    toSamples.add("double precision", over(ticks, doubleSampleTime));
    table.addColumn("to samples", toSamples.names(), toSamples.run());
    toTicks.add("dxr",
                over(samples, [](uint64_t s) { return auclock_sampletime_to_abstime(theClock.get(), s); }));
    toTicks.add("bare division",
                over(tickDividends, [=](const Division& d) { return bareQuotient(d, samplesPerSecond); }));
    toTicks.add("128-bit library division",
                over(tickDividends, [=](const Division& d) { return libraryQuotient(d, samplesPerSecond); }));
    toTicks.add("double precision", over(samples, doubleAbstime));
    table.addColumn("to ticks", toTicks.names(), toTicks.run());
    table.print("bare division");
}

void printErrors()
{
    std::mt19937_64 random(2);
    std::printf("\ndouble precision: wrong results in a million\n%-12s %12s %12s\n", "after", "to samples",
                "to ticks");
    const struct {
        const char* name;
        uint64_t seconds;
    } ages[] = {{"an hour", 3600}, {"a day", 86400}, {"a week", 604800}, {"a year", 31536000}};
    for (const auto& age : ages) {
        int wrongSamples = 0, wrongTicks = 0;
        for (int i = 0; i < 1'000'000; ++i) {
            const uint64_t sample = 44100 * age.seconds + random() % 44100'000;
            // Uses the first tick of a sample, where deadlines are: the hardest case for rounding.
            const uint64_t tick = epoch + (sample * 1'000'000'000 + 44099) / 44100;
            wrongSamples += doubleSampleTime(tick) != auclock_abstime_to_sampletime(theClock.get(), tick);
            wrongTicks += doubleAbstime(sample) != auclock_sampletime_to_abstime(theClock.get(), sample);
        }
        std::printf("%-12s %12d %12d\n", age.name, wrongSamples, wrongTicks);
    }
}

} // namespace

int main()
{
    printSpeed();
    printErrors();
}
