#pragma once

#include <array>
#include <cstdint>

/// The direction of audio through a device.
enum class HALDirection : uint32_t { Input = 0, Output = 1 };

inline constexpr std::array halDirections{HALDirection::Input, HALDirection::Output};
