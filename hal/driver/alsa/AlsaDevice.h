#pragma once

#include "AlsaCard.h"
#include "AlsaRun.h"
#include "HALHardwareDriver.h"

#include <atomic>

/// One PCM of a card with its two directions: a device.
/// Threads: as HALDeviceDriver; update(), refresh…() and remove() on the watching thread.
class AlsaDevice final : public HALDeviceDriver {
public:
    /// `wake` makes the watching thread call refreshRun() soon; it may be called on the IO thread.
    static CXRef<AlsaDevice> init(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                                  std::function<void()> wake);

    /// Adds the device to `sink` once it could be asked what it can do, or shows what it does for another program; asks
    /// again one that was in use then, and reports its name and who uses it. False while the device is not added.
    bool update(HALDriverSink& sink);
    /// Reports what has changed: of its controls, or of its run if that has something to report.
    void refreshControls();
    void refreshRun();
    /// Ends IO and removes the device from the sink.
    void remove();
    /// Ends IO; nothing is reported from now on.
    void detach();

    HALDeviceState state() const;
    const AlsaPcmInfo& pcm() const noexcept { return _pcm; }
    int cardNumber() const noexcept { return _card->number; }

    HALStatus setNominalSampleRate(double rate, HALDeadline deadline) override;
    HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline) override;
    HALStatus setVolume(HALDirection direction, uint32_t element, float scalar,
                        HALDeadline deadline) override;
    HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline) override;
    HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline) override;
    HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override;
    void stopIO() override;

private:
    AlsaDevice(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
               std::function<void()> wake);
    ~AlsaDevice() override = default;

    bool _probe();
    HALDeviceState _describe(const AlsaIdentity& identity) const;
    void _add(HALDriverSink& sink, const AlsaIdentity& identity, HALDeviceState state);
    void _readControls(HALDeviceState& state);
    bool _isUsedElsewhere(bool isOurs);
    bool _isRunning() const;
    void _runChanged();
    void _change(const std::function<void(HALDeviceState&)>& change);
    HALStatus _retime(double rate, uint32_t frameCount, HALDeadline deadline);
    HALStatus _start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused);
    HALStatus _control(const std::function<int(const AlsaMixer&)>& write);

    const CXRef<AlsaCard> _card;
    const AlsaPcmInfo _pcm;
    const uint32_t _periodCount;
    const std::function<void()> _wake;

    std::array<std::optional<AlsaAbilities>, 2> _abilities; // the watching thread's; not changed once added
    std::array<bool, 2> _isProbed;                          // the watching thread's
    AlsaControls _controls;                                 // under the card's lock
    std::atomic<bool> _hasRunChanged{false};

    // Taken before _stateMutex, and never while the sink is called: stopIO() needs it.
    mutable std::mutex _ioMutex;
    AlsaTimeline _timeline;
    CXRef<HALIOProcTable> _table; // while IO is wanted
    std::unique_ptr<AlsaRun> _run;
    bool _isGone = false;

    mutable std::mutex _stateMutex; // held while the sink is called
    HALDeviceState _state;
    HALDriverSink* _sink = nullptr; // while the device is added
};
