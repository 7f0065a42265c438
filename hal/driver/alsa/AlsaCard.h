#pragma once

#include "AlsaControls.h"
#include "AlsaIdentity.h"
#include "AlsaPcm.h"
#include "AlsaReservation.h"
#include "CXObject.h"

#include <condition_variable>
#include <mutex>

class AlsaRun;

/// One card through its control device: what it is, which PCMs it has, its controls, and who may use it.
/// Threads: any.
class AlsaCard final : public CXObject {
public:
    /// Null, and `error`, when the card is gone or not ours to open.
    static CXRef<AlsaCard> open(int number, int& error);

    int number() const noexcept { return _number; }
    std::string pcmName(unsigned pcm) const;
    /// None when the card is gone.
    std::optional<AlsaCardInfo> info();
    std::vector<AlsaPcmInfo> pcms();
    /// How many more programs than ours use a direction of a PCM; `isOurs` when we do.
    bool isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs);

    /// What a direction of a PCM does for another program just now; none when that is not to be seen.
    std::optional<AlsaAbilities> abilitiesInUse(unsigned pcm, HALDirection direction) const;

    /// Calls `work` with the control device, which no other thread uses meanwhile.
    template <class Work> auto withControls(Work work)
    {
        const std::scoped_lock lock(_controlMutex);
        return work(_control);
    }

    enum class Event { None, Values, Controls, Gone };
    /// Of the control device: readable when readEvents() has something to return.
    const pollfd& descriptor() const noexcept { return _descriptor; }
    Event readEvents();

    /// Reserves the card for `run`; as AlsaReservation::acquire(). unreserve() follows in every case.
    int reserve(AlsaRun& run);
    void unreserve(AlsaRun& run);
    /// Of the session bus; -1 without one.
    int reservationDescriptor();
    /// Lets another program have the card that asks for it: waits until every run has closed it.
    void processReservation();

private:
    AlsaCard(int number, snd_ctl_t* control);
    ~AlsaCard() override;

    const int _number;
    pollfd _descriptor{};

    std::mutex _controlMutex; // guards the next
    snd_ctl_t* const _control;

    std::mutex _runsMutex; // guards what follows
    std::condition_variable _runsChanged;
    std::vector<AlsaRun*> _runs; // that have the card reserved
    AlsaReservation _reservation;
};
