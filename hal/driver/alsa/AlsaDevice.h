#pragma once

#include "AlsaCard.h"
#include "AlsaRun.h"
#include "HALHardwareDriver.h"

#include <atomic>

/// A device: one PCM of a card with its two directions.
/// Threads: as HALDeviceDriver; detach() on the watching thread.
class AlsaDevice final : public HALDeviceDriver {
public:
    /// `wake` makes the watching thread call refresh() soon; it may be called on an IO thread.
    static CXRef<AlsaDevice> init(const CXRef<AlsaCard>& card, AlsaPcmInfo pcm, uint32_t periodCount,
                                  HALDriverSink& sink, std::function<void()> wake);

    /// Reports the device's current state. The device is added once its abilities are known, by probing it or
    /// from its use by another program. A device that was in use is probed again later, and so is a direction
    /// whose file is absent; the device does without it until then, and to the end of its IO. Returns
    /// false if it must be called again soon without an event, because descriptors or memory had run out.
    /// `isLast`: it will not be; a direction that still seems absent is taken to be so if the other is known.
    bool refresh(bool isLast = false);
    /// Whether `file` is of a direction for which the last search had run out of descriptors or memory.
    bool isShortOf(std::string_view file) const;
    /// Ends IO and reporting. Returns whether the device was added.
    bool detach();
    /// The state reported last; without streams before the device is added.
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

    bool _probe(bool isLast);
    void _describe(const std::string& cardName, HALDeviceState& state) const;
    void _readControls(HALDeviceState& state);
    void _setSafetyOffset(HALDeviceState& state) const;
    void _fit(HALDeviceState& state) const;
    void _add(HALDeviceState state);
    HALStatus _retime(double rate, uint32_t frameCount, HALDeadline deadline);
    HALStatus _start(HALDeadline deadline, AlsaRun::WhenRefused whenRefused);
    HALStatus _control(HALDirection direction, const ControlWrite& write);

    const CXRef<AlsaCard> _card;
    const AlsaPcmInfo _pcm;
    const uint32_t _periodCount;
    std::array<AlsaControls, 2> _controls; // by HALDirection; under the card's lock

    // Locked before _stateMutex, and never held while the sink is called, because stopIO() locks it.
    std::mutex _ioMutex;
    AlsaRunState _runState;
    CXRef<HALIOProcTable> _table; // null unless IO is wanted
    std::unique_ptr<AlsaRun> _run;
    // Also set and read without _ioMutex: clients that repeatedly start a device could otherwise keep the
    // mutex from detach().
    std::atomic<bool> _isGone{false};

    mutable std::mutex _stateMutex; // guards what follows; held while the sink is called
    std::array<std::optional<AlsaAbilities>, 2> _abilities; // by HALDirection
    std::array<bool, 2> _isProbed;
    HALDeviceState _state;
    HALDriverSink* _sink; // null after detach()
    bool _isAdded = false;
    bool _isShort = false;                  // see refresh()
    std::array<std::string, 2> _shortFiles; // by HALDirection; see isShortOf()
};
