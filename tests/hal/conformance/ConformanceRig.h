#pragma once

#include "HALModel.h"

#include <functional>
#include <memory>
#include <string>

/// What the conformance suite does to the hardware; each driver's tests implement it.
/// Changes may take effect a little later: the suite waits for each.
class ConformanceRig {
public:
    virtual ~ConformanceRig() = default;

    virtual HALModel& model() = 0;
    /// Plugs in a device with so many channels per direction (a direction with 0 is absent), and volume and
    /// mute where it has outputs. Returns its UID.
    virtual std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) = 0;
    virtual void unplug(const std::string& uid) = 0;
    /// Changes what the device calls itself.
    virtual void rename(const std::string& uid, const std::string& name) = 0;
    /// Lets a little time pass for the devices: some cycles, or some milliseconds.
    virtual void letTimePass() = 0;

    /// Whether devices plugged from now on are called what plug() and rename() say. Where they keep names of their own,
    /// what needs a change of the name is skipped.
    virtual bool prepareNames() { return true; }
    /// How far a volume that was set may be from the one that is read: cards have steps.
    virtual float volumeTolerance() const { return 1e-5F; }
};

/// A rig over hardware without devices. One per test, in a process of its own.
std::unique_ptr<ConformanceRig> makeConformanceRig();
