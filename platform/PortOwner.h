#pragma once

#include "CXRef.h"

namespace dxr {

class Port;

/// What a port belongs to. The port keeps it alive.
class PortOwner : public CXObject {
public:
    /// `port` has a message, and may have had one before. From any thread; the port holds no lock.
    virtual void portHasMessage(Port& port) = 0;
};

} // namespace dxr
