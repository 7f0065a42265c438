#pragma once

#include "AudioRecords.h"
#include "CXExport.h"
#include "CXRef.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

/// A closed interval of numbers, such as the sample rates (Hz) or buffer sizes (frames) a device takes. A
/// single value is a range whose ends are equal.
/// Threads:   immutable; any.
/// Real time: the queries; making one, its archive or a description allocates.
class DXR_EXPORT DXRValueRange final : public CXObject {
public:
    /// 0 to 0, which is not valid.
    static CXRef<DXRValueRange> init();
    static CXRef<DXRValueRange> initWithValue(double value);
    static CXRef<DXRValueRange> initWithMin(double min, double max);
    /// Null for a null pointer.
    static CXRef<DXRValueRange> initWithRange(const AudioValueRange* range);
    /// The range of an archive; null when there is none or it is not 16 bytes long.
    static CXRef<DXRValueRange> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioValueRange& range() const noexcept { return _range; }
    double min() const noexcept { return _range.minimum; }
    double max() const noexcept { return _range.maximum; }
    /// The minimum and then the maximum, 8 bytes each, in the processor's order.
    std::vector<std::byte> archive() const;
    /// The ends differ.
    bool isRange() const noexcept { return _range.maximum != _range.minimum; }
    /// Neither end is 0, and they are in order.
    bool isValid() const noexcept;
    /// Both ends belong to the range.
    bool containsValue(double value) const noexcept;
    /// Those of `values` that the range contains, in their order.
    std::vector<double> containedValues(std::span<const double> values) const;

    /// "8000 - 192000", or "44100" for a single value.
    std::string description() const override;
    /// The same in kilohertz: "8 - 192kHz", "44.1kHz".
    std::string descriptionForSampleRate() const;
    /// To the bit.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRValueRange(const AudioValueRange& range) noexcept : _range(range) {}
    ~DXRValueRange() override;

    const AudioValueRange _range;
};
