#pragma once

#include "DXRDevice.h"
#include "Handles.h"

#include <set>

namespace dxr_c {

CXRef<DXRDevice> deviceOf(const dxr_device* handle);
/// The device's handle, with one more reference; fails with the text `otherwise` if there is no device.
dxr_device* give(const CXRef<DXRDevice>& device, const char* otherwise);
/// Sets the list, ordered by name, direction and UID, in memory for dxr_free(), which releases the handles
/// too.
void giveList(const std::set<CXRef<DXRDevice>>& set, dxr_device* const** devices, size_t* count);

} // namespace dxr_c
