#pragma once

#include "HALBackend.h"

/// The backend of a process that has chosen none: the sound server's where it was built in, else one without
/// devices. Which, is settled by the source file that the build picks.
CXRef<HALBackend> halMakeDefaultBackend();
