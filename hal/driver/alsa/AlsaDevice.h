#pragma once

#include "AlsaCard.h"
#include "AlsaRun.h"
#include "HALHardwareDriver.h"

#include <atomic>

/// One PCM of a card with its two directions: a device.
/// Threads: as HALDeviceDriver; detach() on the watching thread.
class AlsaDevice final : public HALDeviceDriver {
public:
    /// `wake` makes the watching thread call refresh() soon; it may be called on the IO thread.
    static CXRef<AlsaDevice> init(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                                  HALDriverSink& sink, std::function<void()> wake);

    /// Reports the device as it is now. It is added once it could be asked what it can do, or shows what it does for another
    /// program; one that was in use then is asked again.
    void refresh();
    /// Ends IO; nothing is reported from now on. Returns whether the device was added.
    bool detach();
    /// As it was reported last; without streams before the device is added.
    HALDeviceState state() const;

    HALStatus setNominalSampleRate(double rate, HALDeadline deadline) override;
    HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline) override;
    HALStatus setVolume(HALDirection direction, uint32_t element, float scalar,
                        HALDeadline deadline) override;
    HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline) override;
    HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline) override;
    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override;
    void stopIO() override;

private:
    using ControlWrite = std::function<int(AlsaControls&, const AlsaMixer&)>;

    AlsaDevice(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount, HALDriverSink& sink,
               std::function<void()> wake);
    ~AlsaDevice() override = default;

    bool _probe();
    void _describe(const std::string& cardName, HALDeviceState& state) const;
    void _readControls(HALDeviceState& state);
    void _add(HALDeviceState state);
    HALStatus _retime(double rate, uint32_t frameCount, HALDeadline deadline);
    HALStatus _start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused);
    HALStatus _control(HALDirection direction, const ControlWrite& write);

    const CXRef<AlsaCard> _card;
    const AlsaPcmInfo _pcm;
    const uint32_t _periodCount;
    std::array<AlsaControls, 2> _controls; // by HALDirection; under the card's lock

    // Taken before _stateMutex, and never while the sink is called: stopIO() needs it.
    std::mutex _ioMutex;
    AlsaRunState _runState;
    CXRef<HALIOProcTable> _table; // while IO is wanted
    std::unique_ptr<AlsaRun> _run;
    // Set and read without the mutex too: clients that start a device again and again would keep it from who takes the
    // device down.
    std::atomic<bool> _isGone{false};

    mutable std::mutex _stateMutex; // guards what follows; held while the sink is called
    std::array<std::optional<AlsaAbilities>, 2> _abilities; // by HALDirection
    std::array<bool, 2> _isProbed;
    HALDeviceState _state;
    HALDriverSink* _sink; // null when detached
    bool _isAdded = false;
};
