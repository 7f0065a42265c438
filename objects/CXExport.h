#pragma once

/// Marks the symbols that the library exports; all others are hidden.
#define DXR_EXPORT __attribute__((visibility("default")))

// The library's C functions are declared between DXR_BEGIN_C and DXR_END_C, and compile as C and as C++.
#ifdef __cplusplus
#define DXR_BEGIN_C extern "C" {
#define DXR_END_C }
#define DXR_NOEXCEPT noexcept
#define DXR_NODISCARD [[nodiscard]]

namespace dxr {}
namespace platform = dxr; // programs written before the first release use this name
#else
#define DXR_BEGIN_C
#define DXR_END_C
#define DXR_NOEXCEPT
#define DXR_NODISCARD __attribute__((warn_unused_result))
#endif
