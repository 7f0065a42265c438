#include "DXRValueRange.h"

#include "NumberText.h"
#include "SampleRateHash.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

namespace {

/// Returns the range divided by `divisor`, followed by `unit`.
std::string described(const AudioValueRange& range, double divisor, const char* unit)
{
    const std::string minimum = numberText(range.minimum / divisor),
                      maximum = numberText(range.maximum / divisor);
    const bool isSingle =
        range.minimum == range.maximum || (std::isnan(range.minimum) && std::isnan(range.maximum));
    return isSingle ? minimum + unit : minimum + " - " + maximum + unit;
}

} // namespace

DXRValueRange::~DXRValueRange() = default;

CXRef<DXRValueRange> DXRValueRange::init()
{
    return initWithValue(0);
}

CXRef<DXRValueRange> DXRValueRange::initWithValue(double value)
{
    return initWithMin(value, value);
}

CXRef<DXRValueRange> DXRValueRange::initWithMin(double min, double max)
{
    const AudioValueRange range{min, max};
    return initWithRange(&range);
}

CXRef<DXRValueRange> DXRValueRange::initWithRange(const AudioValueRange* range)
{
    return range ? CXRef<DXRValueRange>::adopt(new DXRValueRange(*range)) : nullptr;
}

CXRef<DXRValueRange> DXRValueRange::initWithArchive(const std::optional<std::vector<std::byte>>& archive)
{
    AudioValueRange range{};
    if (!archive || archive->size() != sizeof range)
        return nullptr;
    std::memcpy(&range, archive->data(), sizeof range);
    return initWithRange(&range);
}

std::vector<std::byte> DXRValueRange::archive() const
{
    const auto bytes = std::as_bytes(std::span(&_range, 1));
    return {bytes.begin(), bytes.end()};
}

bool DXRValueRange::isValid() const noexcept
{
    return _range.minimum != 0 && _range.maximum != 0 && _range.minimum <= _range.maximum;
}

bool DXRValueRange::containsValue(double value) const noexcept
{
    return _range.minimum <= value && value <= _range.maximum;
}

std::vector<double> DXRValueRange::containedValues(std::span<const double> values) const
{
    std::vector<double> contained;
    std::ranges::copy_if(values, std::back_inserter(contained),
                         [this](double v) { return containsValue(v); });
    return contained;
}

std::string DXRValueRange::description() const
{
    return described(_range, 1, "");
}

std::string DXRValueRange::descriptionForSampleRate() const
{
    return described(_range, 1000, "kHz");
}

bool DXRValueRange::isEqual(const CXObject* other) const
{
    if (this == other)
        return true;
    const auto* const range = dynamic_cast<const DXRValueRange*>(other);
    return range && std::memcmp(&range->_range, &_range, sizeof _range) == 0;
}

size_t DXRValueRange::hash() const
{
    return wholeNumberForHash(_range.minimum) ^ wholeNumberForHash(_range.maximum);
}
