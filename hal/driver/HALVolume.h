#pragma once

#include <cstdint>
#include <optional>
#include <vector>

/// The volume of one direction of a device in two units: a scalar per element, as sliders show it, and a
/// linear amplitude per channel, as hardware uses it. The scalar is the cube root of the amplitude. Element 0
/// is the volume of the loudest channel; setting it scales all channels and keeps their balance, even after
/// silence.
/// Threads: a value; one thread at a time.
class HALVolume {
public:
    /// Stores the hardware's current amplitudes.
    void setAmplitudes(const std::vector<float>& amplitudes);
    const std::vector<float>& amplitudes() const noexcept { return _amplitudes; }

    /// 0..1; nothing if there are no channels. Amplitudes above 1 are reported as 1.
    std::optional<float> mainScalar() const;
    std::vector<std::optional<float>> channelScalars() const;

    /// Returns the amplitudes that setting `element` (0, or a channel from 1) to `scalar` results in.
    std::vector<float> amplitudesAfter(uint32_t element, float scalar) const;

private:
    std::vector<float> _amplitudes;
    std::vector<double> _balance; // each channel relative to the loudest, when one was last audible
};
