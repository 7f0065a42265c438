#include "TickHistogram.h"

#include <algorithm>
#include <cmath>

double TickHistogram::beginOf(size_t bin)
{
    return shortestSeconds * std::pow(10.0, static_cast<double>(bin) / binsPerDecade);
}

void TickHistogram::note(double seconds)
{
    const double place = std::log10(std::max(seconds, shortestSeconds) / shortestSeconds) * binsPerDecade;
    ++_bins[std::min(static_cast<size_t>(place), binCount - 1)];
    ++_count;
    _longest = std::max(_longest, seconds);
}

double TickHistogram::quantileSeconds(double share) const
{
    const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(_count)));
    uint64_t seen = 0;
    for (size_t bin = 0; bin < binCount; ++bin) {
        seen += _bins[bin];
        if (seen >= wanted && seen > 0)
            return std::min(beginOf(bin + 1), _longest);
    }
    return _longest;
}
