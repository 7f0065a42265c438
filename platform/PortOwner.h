#pragma once

#include "CXRef.h"

namespace dxr {

class Port;

/// The owner of a port (a PortSet). The port keeps it alive.
class PortOwner : public CXObject {
public:
    /// Called when `port` has received a message; it may have held others already. Called on any thread, with
    /// no lock of the port held.
    virtual void portHasMessage(Port& port) = 0;
};

} // namespace dxr
