#pragma once

#include "HALModel.h"

#include <functional>
#include <memory>
#include <string>

/// Changes that the conformance suite makes to the hardware; each driver's tests implement them. Changes may
/// take effect a little later: the suite waits for each.
class ConformanceRig {
public:
    virtual ~ConformanceRig() = default;

    virtual HALModel& model() = 0;
    /// Plugs in a device with this many channels per direction (a direction with 0 is absent), and with
    /// volume and mute if it has outputs. Returns its UID.
    virtual std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) = 0;
    virtual void unplug(const std::string& uid) = 0;
    /// Changes the device's name.
    virtual void rename(const std::string& uid, const std::string& name) = 0;
    /// Lets the devices run for some cycles or milliseconds.
    virtual void letTimePass() = 0;

    /// Makes later devices use the names passed to plug() and rename(). Returns false if devices keep fixed
    /// names; the suite then skips tests that need a change of name.
    virtual bool prepareNames() { return true; }
    /// The largest difference between a volume that was set and the one that is read: cards have steps.
    virtual float volumeTolerance() const { return 1e-5F; }
};

/// Creates a rig over hardware without devices. Called once per test, each in a separate process.
std::unique_ptr<ConformanceRig> makeConformanceRig();
