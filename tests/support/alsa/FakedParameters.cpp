#include "FakedParameters.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

using Interval = snd_interval;
using Wide = unsigned long long;

/// The integers from `min` to `max`.
Interval range(unsigned min, unsigned max)
{
    Interval i{};
    i.min = min;
    i.max = max;
    i.integer = 1;
    return i;
}

/// Narrows `i` to `other`. Returns 1 if that changed it, 0 if not, a negative error if it becomes empty.
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
    }
    const bool isEmpty = i.min > i.max || (i.min == i.max && (i.openmin || i.openmax));
    return isEmpty ? -EINVAL : std::memcmp(&before, &i, sizeof i) != 0;
}

/// From low / lowBy to high / highBy; a bound that is not an integer becomes the next integer, as an open
/// bound.
Interval between(Wide low, Wide lowBy, Wide high, Wide highBy)
{
    const auto capped = [](Wide value) { return static_cast<unsigned>(std::min<Wide>(value, UINT_MAX)); };
    Interval i{};
    i.min = lowBy ? capped(low / lowBy) : UINT_MAX;
    i.openmin = lowBy && low % lowBy;
    i.max = highBy ? capped(high / highBy) : UINT_MAX;
    i.openmax = highBy && high % highBy && i.max < UINT_MAX;
    i.max += i.openmax;
    return i;
}

/// a * b
Interval product(const Interval& a, const Interval& b)
{
    return between(Wide{a.min} * b.min, 1, Wide{a.max} * b.max, 1);
}

/// a * k / b
Interval quotient(const Interval& a, Wide k, const Interval& b)
{
    return between(a.min * k, b.max, a.max * k, b.min);
}

/// The smallest interval with all values of the list that are in `i`.
template <class Values> Interval among(const Interval& i, const Values& values)
{
    Interval found = range(UINT_MAX, 0);
    for (const unsigned value : values) {
        const bool isIn = value >= i.min + i.openmin && value + i.openmax <= i.max;
        found.min = isIn ? std::min(found.min, value) : found.min;
        found.max = isIn ? std::max(found.max, value) : found.max;
    }
    return found;
}

/// Narrows a mask of up to 256 choices to `numbers`; returns false if none is left.
bool narrowMask(snd_pcm_hw_params& parameters, unsigned mask, const std::vector<unsigned>& numbers)
{
    unsigned(&bits)[8] = parameters.masks[mask - SNDRV_PCM_HW_PARAM_FIRST_MASK].bits;
    unsigned allowed[8]{};
    for (const unsigned number : numbers)
        allowed[number / 32] |= 1U << number % 32;
    bool isAnyLeft = false;
    for (size_t word = 0; word < 8; ++word)
        isAnyLeft = (bits[word] &= allowed[word]) != 0 || isAnyLeft;
    return isAnyLeft;
}

} // namespace

snd_interval& fakedInterval(snd_pcm_hw_params& parameters, unsigned number)
{
    return parameters.intervals[number - SNDRV_PCM_HW_PARAM_FIRST_INTERVAL];
}

int fakedRefine(snd_pcm_hw_params& parameters, const FakedCardOptions& card, bool isCapture)
{
    std::vector<unsigned> accesses{SNDRV_PCM_ACCESS_RW_INTERLEAVED}, formats;
    if (card.mapsSamples)
        accesses.push_back(SNDRV_PCM_ACCESS_MMAP_INTERLEAVED);
    for (const FakedFormat format : card.formats)
        formats.push_back(static_cast<unsigned>(format));
    if (!narrowMask(parameters, SNDRV_PCM_HW_PARAM_ACCESS, accesses) ||
        !narrowMask(parameters, SNDRV_PCM_HW_PARAM_SUBFORMAT, {0}) ||
        !narrowMask(parameters, SNDRV_PCM_HW_PARAM_FORMAT, formats))
        return -EINVAL;
    const unsigned channels = isCapture ? card.capture : card.playback;
    const auto of = [&](unsigned number) -> Interval& { return fakedInterval(parameters, number); };
    Interval &rate = of(SNDRV_PCM_HW_PARAM_RATE), &periods = of(SNDRV_PCM_HW_PARAM_PERIODS);
    Interval &period = of(SNDRV_PCM_HW_PARAM_PERIOD_SIZE), &ring = of(SNDRV_PCM_HW_PARAM_BUFFER_SIZE);
    // Applies the rules until nothing changes. No program needs rules from times to rates, or for bytes.
    for (int changed = 1; changed > 0;) {
        const std::pair<Interval&, Interval> rules[] = {
            {of(SNDRV_PCM_HW_PARAM_CHANNELS), range(channels, channels)},
            {rate, among(rate, card.rates)},
            {period, range(card.minPeriod, card.maxBuffer / 2)},
            {periods, range(2, 1024)},
            {ring, range(card.minPeriod * 2, card.maxBuffer)},
            {periods, quotient(ring, 1, period)},
            {period, quotient(ring, 1, periods)},
            {ring, product(period, periods)},
            {of(SNDRV_PCM_HW_PARAM_PERIOD_TIME), quotient(period, 1'000'000, rate)},
            {of(SNDRV_PCM_HW_PARAM_BUFFER_TIME), quotient(ring, 1'000'000, rate)},
        };
        changed = 0;
        for (const auto& [interval, limit] : rules) {
            const int result = narrow(interval, limit);
            if (result < 0)
                return result;
            changed |= result;
        }
    }
    parameters.cmask = ~0U;
    parameters.rmask = 0;
    parameters.info = SNDRV_PCM_INFO_INTERLEAVED | SNDRV_PCM_INFO_BLOCK_TRANSFER | SNDRV_PCM_INFO_SYNC_START;
    if (card.mapsSamples)
        parameters.info |= SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID;
    parameters.rate_num = rate.min;
    parameters.rate_den = 1;
    parameters.fifo_size = 0;
    return 0;
}
