#pragma once

#include "AlsaControls.h"
#include "AlsaPcm.h"
#include "AlsaReservation.h"
#include "CXObject.h"

#include <mutex>
#include <poll.h>

/// One card through its control device: which unit it is, which PCMs it has, its controls, and who uses it.
/// Threads: any.
class AlsaCard final : public CXObject {
public:
    /// Null when the card is gone or not ours to open. The kernel's /sys and /proc are below `root`.
    static CXRef<AlsaCard> open(int number, const std::filesystem::path& root);

    const int number;
    const AlsaIdentity& identity() const noexcept { return _identity; }
    const std::vector<AlsaPcmInfo>& pcms() const noexcept { return _pcms; }
    std::string pcmName(unsigned pcm) const;
    /// As the card reports it now; none when the card is gone.
    std::optional<std::string> name();
    /// Whether more programs than ours use a direction of a PCM; `isOurs` when we do.
    bool isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs);
    /// What a direction of a PCM does for another program just now; none when that cannot be seen.
    std::optional<AlsaAbilities> abilitiesInUse(unsigned pcm, HALDirection direction) const;

    /// Calls `work` with the controls, which no other thread uses meanwhile.
    template <class Work> auto withControls(Work work)
    {
        const std::scoped_lock lock(_mutex);
        return work(_mixer);
    }
    /// Readable when readEvents() has something to do.
    const pollfd& descriptor() const noexcept { return _descriptor; }
    /// The controls follow the card's. False when the card is gone.
    bool readEvents();

    AlsaReservation& reservation() noexcept { return _reservation; }

private:
    AlsaCard(int number, std::filesystem::path root);
    ~AlsaCard() override;

    bool _open();
    void _findPcms();
    std::optional<AlsaCardInfo> _info();
    bool _pcmInfo(unsigned pcm, HALDirection direction, snd_pcm_info_t* info);

    const std::filesystem::path _root;
    AlsaIdentity _identity;
    std::vector<AlsaPcmInfo> _pcms;
    pollfd _descriptor{};
    AlsaReservation _reservation;

    std::mutex _mutex; // guards the next
    AlsaMixer _mixer;
};
