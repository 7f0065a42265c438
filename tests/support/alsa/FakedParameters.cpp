#include "FakedParameters.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

using Interval = snd_interval;
using Wide = unsigned long long;

bool isEmpty(const Interval& i)
{
    return i.min > i.max || (i.min == i.max && (i.openmin || i.openmax));
}

unsigned capped(Wide value)
{
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned>(value);
}

/// Narrows `i` to `other`: 1 when that changed it, 0 when not, negative when nothing is left.
int narrow(Interval& i, const Interval& other)
{
    const Interval before = i;
    if (i.min < other.min || (i.min == other.min && other.openmin)) {
        i.min = other.min;
        i.openmin = other.openmin;
    }
    if (i.max > other.max || (i.max == other.max && other.openmax)) {
        i.max = other.max;
        i.openmax = other.openmax;
    }
    i.integer = i.integer || other.integer;
    if (i.integer) {
        i.min += i.openmin;
        i.max -= i.openmax;
        i.openmin = i.openmax = 0;
    } else if (!i.openmin && !i.openmax && i.min == i.max) {
        i.integer = 1;
    }
    return isEmpty(i) ? -EINVAL : std::memcmp(&before, &i, sizeof i) != 0;
}

Interval range(unsigned min, unsigned max)
{
    Interval i{};
    i.min = min;
    i.max = max;
    i.integer = 1;
    return i;
}

/// a * b / k
Interval product(const Interval& a, const Interval& b, unsigned k = 1)
{
    Interval c{};
    const Wide low = Wide{a.min} * b.min, high = Wide{a.max} * b.max;
    c.min = capped(low / k);
    c.openmin = low % k || a.openmin || b.openmin;
    c.max = capped(high / k);
    c.openmax = high % k == 0 && (a.openmax || b.openmax);
    if (high % k && c.max < UINT_MAX) {
        ++c.max;
        c.openmax = 1;
    }
    c.integer = k == 1 && a.integer && b.integer;
    return c;
}

/// a * k / b
Interval quotient(const Interval& a, Wide k, const Interval& b)
{
    Interval c{};
    const Wide low = Wide{a.min} * k, high = Wide{a.max} * k;
    c.min = b.max ? capped(low / b.max) : UINT_MAX;
    c.openmin = (b.max && low % b.max) || a.openmin || b.openmax;
    c.max = b.min ? capped(high / b.min) : UINT_MAX;
    c.openmax = b.min && (a.openmax || b.openmin);
    if (b.min && high % b.min && c.max < UINT_MAX) {
        ++c.max;
        c.openmax = 1;
    }
    return c;
}

/// The list's values that lie in `i`.
template <class Values> Interval among(const Interval& i, const Values& values)
{
    Interval found = range(UINT_MAX, 0);
    for (const unsigned value : values) {
        const bool isIn =
            (i.openmin ? value > i.min : value >= i.min) && (i.openmax ? value < i.max : value <= i.max);
        found.min = isIn ? std::min(found.min, value) : found.min;
        found.max = isIn ? std::max(found.max, value) : found.max;
    }
    return found;
}

unsigned* maskOf(snd_pcm_hw_params& parameters, unsigned number)
{
    return parameters.masks[number - SNDRV_PCM_HW_PARAM_FIRST_MASK].bits;
}

/// The formats of the card that the configuration still has, by their sizes.
std::vector<unsigned> formatBits(snd_pcm_hw_params& parameters, const FakedCardOptions& card)
{
    unsigned* const mask = maskOf(parameters, SNDRV_PCM_HW_PARAM_FORMAT);
    const Interval& wanted = fakedInterval(parameters, SNDRV_PCM_HW_PARAM_SAMPLE_BITS);
    unsigned left[8]{};
    std::vector<unsigned> sizes;
    for (const FakedFormat format : card.formats) {
        const auto word = static_cast<unsigned>(format) / 32,
                   bit = 1U << (static_cast<unsigned>(format) % 32);
        const unsigned size = format == FakedFormat::S16 ? 16 : format == FakedFormat::S24Packed ? 24 : 32;
        if ((mask[word] & bit) && size >= wanted.min && size <= wanted.max) {
            left[word] |= bit;
            sizes.push_back(size);
        }
    }
    std::memcpy(mask, left, sizeof left);
    return sizes;
}

bool narrowMask(snd_pcm_hw_params& parameters, unsigned number, unsigned bits)
{
    unsigned* const mask = maskOf(parameters, number);
    std::fill_n(mask + 1, 7, 0U);
    return (mask[0] &= bits) != 0;
}

/// One round of all rules: whether anything changed, negative when nothing is left.
int applyRules(snd_pcm_hw_params& parameters, const FakedCardOptions& card)
{
    enum : unsigned {
        SampleBits = SNDRV_PCM_HW_PARAM_SAMPLE_BITS,
        FrameBits,
        Channels,
        Rate,
        PeriodTime,
        PeriodSize,
        PeriodBytes,
        Periods,
        BufferTime,
        BufferSize,
        BufferBytes
    };
    const auto of = [&](unsigned number) -> Interval& { return fakedInterval(parameters, number); };
    constexpr unsigned second = 1'000'000;
    int all = 0;
    const auto rule = [&](unsigned number, const Interval& other) {
        if (all >= 0) {
            const int changed = narrow(of(number), other);
            all = changed < 0 ? changed : all | changed;
        }
    };
    const std::vector<unsigned> sizes = formatBits(parameters, card);
    rule(SampleBits, among(of(SampleBits), sizes));
    rule(Rate, among(of(Rate), card.rates));
    rule(FrameBits, product(of(SampleBits), of(Channels)));
    rule(SampleBits, quotient(of(FrameBits), 1, of(Channels)));
    rule(Channels, quotient(of(FrameBits), 1, of(SampleBits)));
    rule(FrameBits, quotient(of(PeriodBytes), 8, of(PeriodSize)));
    rule(FrameBits, quotient(of(BufferBytes), 8, of(BufferSize)));
    rule(Rate, quotient(of(PeriodSize), second, of(PeriodTime)));
    rule(Rate, quotient(of(BufferSize), second, of(BufferTime)));
    rule(Periods, quotient(of(BufferSize), 1, of(PeriodSize)));
    rule(PeriodSize, quotient(of(BufferSize), 1, of(Periods)));
    rule(PeriodSize, quotient(of(PeriodBytes), 8, of(FrameBits)));
    rule(PeriodSize, product(of(PeriodTime), of(Rate), second));
    rule(BufferSize, product(of(PeriodSize), of(Periods)));
    rule(BufferSize, quotient(of(BufferBytes), 8, of(FrameBits)));
    rule(BufferSize, product(of(BufferTime), of(Rate), second));
    rule(PeriodBytes, product(of(PeriodSize), of(FrameBits), 8));
    rule(BufferBytes, product(of(BufferSize), of(FrameBits), 8));
    rule(PeriodTime, quotient(of(PeriodSize), second, of(Rate)));
    rule(BufferTime, quotient(of(BufferSize), second, of(Rate)));
    return all;
}

} // namespace

snd_interval& fakedInterval(snd_pcm_hw_params& parameters, unsigned number)
{
    return parameters.intervals[number - SNDRV_PCM_HW_PARAM_FIRST_INTERVAL];
}

int fakedRefine(snd_pcm_hw_params& parameters, const FakedCardOptions& card, bool isCapture)
{
    const snd_pcm_hw_params before = parameters;
    const unsigned mapped = card.mapsSamples ? 1U << SNDRV_PCM_ACCESS_MMAP_INTERLEAVED : 0U;
    if (!narrowMask(parameters, SNDRV_PCM_HW_PARAM_ACCESS, mapped | 1U << SNDRV_PCM_ACCESS_RW_INTERLEAVED) ||
        !narrowMask(parameters, SNDRV_PCM_HW_PARAM_SUBFORMAT, 1))
        return -EINVAL;
    const unsigned channels = isCapture ? card.capture : card.playback;
    const std::pair<unsigned, Interval> limits[] = {
        {SNDRV_PCM_HW_PARAM_CHANNELS, range(channels, channels)},
        {SNDRV_PCM_HW_PARAM_PERIOD_SIZE, range(card.minPeriod, card.maxBuffer / 2)},
        {SNDRV_PCM_HW_PARAM_PERIODS, range(2, 1024)},
        {SNDRV_PCM_HW_PARAM_BUFFER_SIZE, range(card.minPeriod * 2, card.maxBuffer)},
    };
    for (const auto& [number, limit] : limits)
        if (narrow(fakedInterval(parameters, number), limit) < 0)
            return -EINVAL;
    for (int changed = 1; changed > 0;)
        if ((changed = applyRules(parameters, card)) < 0)
            return -EINVAL;
    parameters.cmask = 0;
    for (unsigned n = 0; n <= SNDRV_PCM_HW_PARAM_LAST_MASK; ++n)
        if (std::memcmp(&before.masks[n], &parameters.masks[n], sizeof before.masks[n]) != 0)
            parameters.cmask |= 1U << n;
    for (unsigned n = SNDRV_PCM_HW_PARAM_FIRST_INTERVAL; n <= SNDRV_PCM_HW_PARAM_LAST_INTERVAL; ++n)
        if (std::memcmp(&before.intervals[n - SNDRV_PCM_HW_PARAM_FIRST_INTERVAL],
                        &fakedInterval(parameters, n), sizeof(Interval)) != 0)
            parameters.cmask |= 1U << n;
    parameters.rmask = 0;
    parameters.info = SNDRV_PCM_INFO_INTERLEAVED | SNDRV_PCM_INFO_BLOCK_TRANSFER | SNDRV_PCM_INFO_SYNC_START |
                      SNDRV_PCM_INFO_RESUME;
    if (card.mapsSamples)
        parameters.info |= SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID;
    parameters.rate_num = fakedInterval(parameters, SNDRV_PCM_HW_PARAM_RATE).min;
    parameters.rate_den = 1;
    parameters.fifo_size = 0;
    const Interval& bits = fakedInterval(parameters, SNDRV_PCM_HW_PARAM_SAMPLE_BITS);
    parameters.msbits = bits.min == bits.max ? bits.min : 0;
    return 0;
}

int fakedChoose(snd_pcm_hw_params& parameters, unsigned number, unsigned value, const FakedCardOptions& card,
                bool isCapture)
{
    narrow(fakedInterval(parameters, number), range(value, value));
    return fakedRefine(parameters, card, isCapture);
}
