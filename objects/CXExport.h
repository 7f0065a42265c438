#pragma once

/// Marks what the library shows to its clients; everything else is hidden.
#define DXR_EXPORT __attribute__((visibility("default")))
