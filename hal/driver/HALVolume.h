#pragma once

#include <cstdint>
#include <optional>
#include <vector>

/// The volume of one direction of a device, in both units: scalars per element, as sliders show them, and linear
/// amplitudes per channel, as hardware has them. The scalar is the cube root of the amplitude. Element 0 is the loudest
/// channel; writing it moves all channels and keeps their balance, also through silence.
/// Threads: a value; one thread at a time.
class HALVolume {
public:
    /// What the hardware has now.
    void setAmplitudes(const std::vector<float>& amplitudes);
    const std::vector<float>& amplitudes() const noexcept { return _amplitudes; }

    /// 0..1; nothing when there is no volume. Amplitudes beyond 1 read as 1.
    std::optional<float> mainScalar() const;
    std::vector<std::optional<float>> channelScalars() const;

    /// The amplitudes after `element` (0, or a channel from 1) was set to `scalar`.
    std::vector<float> amplitudesAfter(uint32_t element, float scalar) const;

private:
    std::vector<float> _amplitudes;
    std::vector<double> _balance; // of each channel to the loudest, when one was last to be heard
};
