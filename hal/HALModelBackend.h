#pragma once

#include "HALBackend.h"
#include "HALDeviceState.h"
#include "HALIOProcTable.h"
#include "HALNotifier.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

class HALPropertyWriter;

/// What the system object knows besides its devices.
enum class HALDefault : uint32_t { Input = 0, Output = 1, SystemOutput = 2 };

/// A backend over a model: states of devices in memory, from which every property is read, and whose changes
/// are announced. What derives from it keeps the model true and carries out what the model cannot: writes,
/// and IO.
/// Threads:   all functions from any thread. The hooks are called on the thread of the HAL's client, with no
///            lock of the model held; startIO() and stopIO() of one device never at the same time.
/// Real time: as HALBackend says.
class HALModelBackend : public HALBackend {
public:
    HALStatus propertySize(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, uint32_t& size) final;
    HALStatus readProperty(AudioObjectID objectID, const Address& address,
                           std::span<const std::byte> qualifier, std::span<std::byte> out,
                           uint32_t& size) final;
    HALStatus writeProperty(AudioObjectID objectID, const Address& address,
                            std::span<const std::byte> qualifier, std::span<const std::byte> value) final;
    HALStatus addListener(AudioObjectID objectID, const Address& address, const HALListener& listener) final;
    HALStatus removeListener(AudioObjectID objectID, const Address& address,
                             const HALListener& listener) final;
    HALStatus createIOProc(AudioObjectID deviceID, const AudioDeviceIOBlock& block,
                           AudioDeviceIOProcID& procID) final;
    HALStatus destroyIOProc(AudioObjectID deviceID, AudioDeviceIOProcID procID) final;
    HALStatus start(AudioObjectID deviceID, AudioDeviceIOProcID procID) final;
    HALStatus stop(AudioObjectID deviceID, AudioDeviceIOProcID procID) final;
    HALStatus createAggregateDevice(const CXValue& description, AudioObjectID& deviceID) final;
    HALStatus destroyAggregateDevice(AudioObjectID deviceID) final;

protected:
    HALModelBackend();
    ~HALModelBackend() override;

    // -- The model

    /// Adds a device and announces it. Its streams get their object IDs here. `uid` is unique among the
    /// devices.
    /// `beforeVisible` is told the new ID before any client can use it, so that the hooks find the device
    /// known.
    AudioObjectID addDevice(HALDeviceState state,
                            const std::function<void(AudioObjectID)>& beforeVisible = {});
    /// Takes the device away and announces it: its callbacks are not called again, its objects are gone. The
    /// backend has ended its IO before, or does so after; stopIO() is not called. False when there is no such
    /// device.
    bool removeDevice(AudioObjectID deviceID);
    /// Lets `change` alter a device's state, under the model's lock, and announces what differs after. A
    /// stream keeps its object ID by its place in its direction. False when there is no such device.
    bool updateDevice(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change);
    /// A copy of the state; nothing when there is no such device.
    std::optional<HALDeviceState> deviceState(AudioObjectID deviceID) const;
    std::vector<AudioObjectID> deviceIDs() const;
    /// kAudioObjectUnknown when there is none.
    AudioObjectID deviceWithUID(const std::string& uid) const;

    AudioObjectID defaultDevice(HALDefault which) const;
    /// Announces the new default, which may be none. One that goes away leaves none until the backend says
    /// more.
    void setDefaultDevice(HALDefault which, AudioObjectID deviceID);

    /// The device's IO callbacks; none when there is no such device.
    CXRef<HALIOProcTable> ioProcTable(AudioObjectID deviceID) const;
    HALNotifier& notifier() noexcept { return *_notifier; }

    // -- What a backend must do. The values are checked against the device's state; the device may have gone
    // since. Each answers a status in bounded time, and updates the model when the hardware has followed.

    virtual HALStatus setNominalSampleRate(AudioObjectID deviceID, double rate) = 0;
    virtual HALStatus setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount) = 0;
    /// `scalar` is 0..1; `element` is 0 or a channel, and has a volume control.
    virtual HALStatus setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                                float scalar) = 0;
    virtual HALStatus setMuted(AudioObjectID deviceID, HALDirection direction, bool muted) = 0;
    virtual HALStatus setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID) = 0;
    /// The device has channels in the direction and can be default there.
    virtual HALStatus chooseDefaultDevice(HALDefault which, AudioObjectID deviceID) = 0;

    /// Starts the hardware's cycles: prepare() and setTiming() of the table first, then runCycle() on the
    /// device's IO thread until stopIO(). The device's state says what it runs at.
    virtual HALStatus startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table) = 0;
    /// No cycle runs after it has returned. Never called on an IO thread of the device.
    virtual void stopIO(AudioObjectID deviceID) = 0;

    /// Called before the system object answers: a place to wait, for a bounded time, until the devices that
    /// are there have been found. Not called on IO threads.
    virtual void waitUntilEnumerated() {}
    /// Called before a property is read, or its size when `isSize`, off the IO threads: anything but 0 is the
    /// answer.
    virtual HALStatus interceptRead(AudioObjectID objectID, const Address& address, bool isSize);
    /// Waits until every change of the model so far has been followed by the aggregate devices and told to the
    /// listeners without a queue. Not from a listener.
    void settle();
    /// Called once by the destructor of the most derived class, before anything of it is gone: ends the aggregate
    /// devices and the notification thread, so that neither finds half a backend.
    void stopNotifying();

private:
    class Device;
    class Aggregates; // aggregate devices, and what they see of the model
    struct Object;    // what an object ID stands for

    CXRef<Device> _device(AudioObjectID deviceID) const;
    void _numberStreams(const CXRef<Device>& device, const HALDeviceState& before);

    HALStatus _answer(AudioObjectID objectID, const Address& address, HALPropertyWriter& writer);
    HALStatus _answerSystem(const Address& address, HALPropertyWriter& writer) const;
    HALStatus _answerSystemTranslation(uint32_t selector, HALPropertyWriter& writer) const;
    static HALStatus _answerDevice(const Device& device, const Address& address, HALPropertyWriter& writer);

    HALStatus _writeSystem(const Address& address, std::span<const std::byte> value);
    HALStatus _writeDevice(Device& device, const HALDeviceState& state, const Address& address,
                           std::span<const std::byte> value);
    HALStatus _writeStream(AudioObjectID deviceID, const HALDeviceState& state, const HALStreamState& stream,
                           const Address& address, std::span<const std::byte> value);
    HALStatus _writeSampleRate(AudioObjectID deviceID, const HALDeviceState& state,
                               std::span<const std::byte> value);
    HALStatus _writeBufferFrameSize(AudioObjectID deviceID, const HALDeviceState& state,
                                    std::span<const std::byte> value);
    HALStatus _writeVolume(AudioObjectID deviceID, HALDirection direction, const Address& address,
                           std::span<const std::byte> value);
    HALStatus _writeDataSource(AudioObjectID deviceID, const HALDirectionState& state, HALDirection direction,
                               std::span<const std::byte> value);

    // The hooks, or what the device does itself when it is an aggregate.
    HALStatus _carryOutRate(AudioObjectID deviceID, double rate);
    HALStatus _carryOutFrames(AudioObjectID deviceID, uint32_t frameCount);
    HALStatus _carryOutMute(AudioObjectID deviceID, HALDirection direction, bool muted);
    HALStatus _startHardware(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table);
    void _stopHardware(AudioObjectID deviceID);
    HALStatus _writeName(AudioObjectID deviceID, std::span<const std::byte> value);

    void _stopIfIdle(Device& device);
    void _stopIfIdleLater(AudioObjectID deviceID);
    void _announceRunning(AudioObjectID deviceID);

    std::unique_ptr<HALNotifier> _notifier;
    std::unique_ptr<Aggregates> _aggregates;

    std::mutex _creationMutex; // of aggregates: two of one UID cannot both find it free
    mutable std::mutex
        _mutex; // everything below, and the devices' states; never held while anything is called
    std::map<AudioObjectID, CXRef<Device>> _devices;
    std::unordered_map<AudioObjectID, Object> _streams;
    std::unordered_map<std::string, AudioObjectID> _idsByUID;
    std::array<AudioObjectID, 3> _defaults{}; // by HALDefault
};
