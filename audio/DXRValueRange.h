#pragma once

#include "AudioRecords.h"
#include "CXExport.h"
#include "CXRef.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

/// A closed interval of numbers, such as the sample rates (Hz) or buffer sizes (frames) that a device
/// supports. A single value is a range whose ends are equal.
/// Threads:   immutable; any.
/// Real time: the queries; creating a range, its archive or a description allocates.
class DXR_EXPORT DXRValueRange final : public CXObject {
public:
    /// Creates the range 0 to 0, which is not valid.
    static CXRef<DXRValueRange> init();
    static CXRef<DXRValueRange> initWithValue(double value);
    static CXRef<DXRValueRange> initWithMin(double min, double max);
    /// Returns null if `range` is null.
    static CXRef<DXRValueRange> initWithRange(const AudioValueRange* range);
    /// Creates a range from an archive. Returns null if there is none or it is not 16 bytes long.
    static CXRef<DXRValueRange> initWithArchive(const std::optional<std::vector<std::byte>>& archive);

    const AudioValueRange& range() const noexcept { return _range; }
    double min() const noexcept { return _range.minimum; }
    double max() const noexcept { return _range.maximum; }
    /// The minimum and then the maximum, 8 bytes each, in native byte order.
    std::vector<std::byte> archive() const;
    /// Returns true if the ends differ.
    bool isRange() const noexcept { return _range.maximum != _range.minimum; }
    /// Returns true if neither end is 0 and they are in order.
    bool isValid() const noexcept;
    /// Returns true if `value` is in the range, including both ends.
    bool containsValue(double value) const noexcept;
    /// Returns those of `values` that the range contains, in the same order.
    std::vector<double> containedValues(std::span<const double> values) const;

    /// "8000 - 192000", or "44100" for a single value.
    std::string description() const override;
    /// The same in kilohertz: "8 - 192kHz", "44.1kHz".
    std::string descriptionForSampleRate() const;
    /// Compares all bits.
    bool isEqual(const CXObject* other) const override;
    size_t hash() const override;

private:
    explicit DXRValueRange(const AudioValueRange& range) noexcept : _range(range) {}
    ~DXRValueRange() override;

    const AudioValueRange _range;
};
