#pragma once

#include "HALDeviceDriver.h"
#include "HALDeviceProperties.h"
#include "HALNotifier.h"

#include <atomic>
#include <mutex>

/// A device as the HAL has it: the state that its properties are read from, its IO callbacks, and the driver
/// that runs it. Announces what differs after each change.
/// Threads: any; the driver is called on the calling thread with no lock held but the one that keeps starts
///          and stops of this device apart.
/// Waits:   start(), stop(), destroyIOProc() for the driver and for running cycles; reads never.
class HALDevice final : public CXObject {
public:
    /// `notifier` outlives the device's last cycle.
    static CXRef<HALDevice> initWithDriver(const CXRef<HALDeviceDriver>& driver, HALNotifier& notifier);

    AudioObjectID objectID() const noexcept { return _objectID; }
    HALDeviceDriver& driver() const noexcept { return *_driver; }
    const CXRef<HALDeviceDriver>& driverRef() const noexcept { return _driver; }
    /// The IO callbacks.
    const CXRef<HALIOProcTable>& table() const noexcept { return _table; }
    HALDeviceState state() const;
    /// The IDs of its streams, inputs first.
    std::vector<AudioObjectID> streamIDs() const;
    /// True once the hardware has gone.
    bool isGone() const noexcept { return _isGone; }

    HALStatus readProperty(const AudioObjectPropertyAddress& address, HALPropertyWriter& writer) const;
    /// '!obj' when the device has no such stream any more.
    HALStatus readStreamProperty(AudioObjectID streamID, const AudioObjectPropertyAddress& address,
                                 HALPropertyWriter& writer) const;

    /// Takes `state` over and announces what differs. Streams keep their IDs by their place in their
    /// direction, new ones get new IDs.
    void setState(HALDeviceState state);
    /// The hardware has gone. On return no callback runs, unless one of them made this call, and none will
    /// again. False when this was known.
    bool close();

    // -- IO, as the published functions of the same names say; not on an IO thread of the device

    HALStatus createIOProc(const AudioDeviceIOBlock& block, AudioDeviceIOProcID& procID);
    HALStatus destroyIOProc(AudioDeviceIOProcID procID);
    HALStatus start(AudioDeviceIOProcID procID, HALDeadline deadline);
    HALStatus stop(AudioDeviceIOProcID procID);
    /// Stops the hardware when no callback is started any more.
    void stopIfIdle();

    /// It runs, or no longer runs, as a member of a group. Each begin has one end.
    void groupRunBegins();
    void groupRunEnds();

private:
    HALDevice(const CXRef<HALDeviceDriver>& driver, HALNotifier& notifier);
    ~HALDevice() override = default;

    HALDeviceView _view() const { return {_objectID, _state, _runs > 0}; }
    void _numberStreams(HALDeviceState& state) const;
    void _changeRuns(int by);
    void _post(const std::vector<HALObjectChange>& changes);
    void _stopIfIdle();

    const AudioObjectID _objectID;
    const CXRef<HALDeviceDriver> _driver;
    HALNotifier& _notifier;
    const CXRef<HALIOProcTable> _table;

    mutable std::mutex _mutex; // what follows; never held while anything is called
    HALDeviceState _state;
    int _runs = 0; // by its own callbacks (at most one), and in groups

    std::mutex _ioMutex;              // held through startIO() and stopIO(); taken before any other lock
    bool _isRunningIO = false;        // under _ioMutex
    std::atomic<bool> _isGone{false}; // set once
};
