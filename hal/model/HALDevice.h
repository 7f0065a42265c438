#pragma once

#include "HALDeviceDriver.h"
#include "HALDeviceProperties.h"
#include "HALNotifier.h"

#include <atomic>
#include <mutex>

/// A device of the HAL: its state, from which its properties are read, its IO callbacks, and its driver.
/// Announces every property that differs after a change.
/// Threads: any. The driver is called on the calling thread; the only lock held then is _ioMutex, which
///          serialises starts and stops of this device.
/// Waits:   start(), stop() and destroyIOProc() wait for the driver and for running cycles; reads never wait.
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
    /// The IDs of the device's streams, inputs first.
    std::vector<AudioObjectID> streamIDs() const;
    /// True once the hardware device has disappeared.
    bool isGone() const noexcept { return _isGone; }

    HALStatus readProperty(const AudioObjectPropertyAddress& address, HALPropertyWriter& writer) const;
    /// Returns '!obj' if the device does not have the stream, or no longer has it.
    HALStatus readStreamProperty(AudioObjectID streamID, const AudioObjectPropertyAddress& address,
                                 HALPropertyWriter& writer) const;

    /// Stores `state` and announces what differs. Streams keep their IDs by their position in their
    /// direction; new streams get new IDs.
    void setState(HALDeviceState state);
    /// Called when the hardware device has disappeared. On return no callback is running, unless one of them
    /// made this call, and none will run again. Returns false if the device was already closed.
    bool close();

    // -- IO, like the published functions of the same names; not on an IO thread of the device

    HALStatus createIOProc(const AudioDeviceIOBlock& block, AudioDeviceIOProcID& procID);
    HALStatus destroyIOProc(AudioDeviceIOProcID procID);
    HALStatus start(AudioDeviceIOProcID procID, HALDeadline deadline);
    HALStatus stop(AudioDeviceIOProcID procID);
    /// Stops the hardware if no callback is started any more.
    void stopIfIdle();

    /// Called when the device begins or ends running as a member of a group. Each begin is followed by one
    /// end.
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

    mutable std::mutex _mutex; // guards what follows; never held while the driver or a listener is called
    HALDeviceState _state;
    int _runs = 0; // of its own callbacks (at most one) and of groups

    std::mutex _ioMutex;              // held during startIO() and stopIO(); locked before any other lock
    bool _isRunningIO = false;        // guarded by _ioMutex
    std::atomic<bool> _isGone{false}; // set once
};
