#pragma once

#include "AlsaControls.h"
#include "AlsaPcm.h"
#include "AlsaReservation.h"
#include "CXObject.h"

#include <cerrno>
#include <mutex>
#include <poll.h>

/// Whether an error of opening a file below /dev/snd may mean that descriptors or memory have run out for now.
/// alsa-lib looks for the card first, and reports every failure of that as if the card were absent.
bool alsaIsShortage(int error, const std::string& file);

/// Whether an error says that what was to be opened is absent.
constexpr bool alsaIsAbsence(int error)
{
    return error == -ENOENT || error == -ENODEV;
}

/// One sound card, accessed through its control device: its identity, its PCMs, its controls, and whether
/// other programs use it.
/// Threads: any.
class AlsaCard final : public CXObject {
public:
    /// Returns null and stores alsa-lib's error if the card has disappeared or cannot be opened. The kernel's
    /// /sys and /proc are below `root`.
    static CXRef<AlsaCard> open(int number, const std::filesystem::path& root, int& error);

    const int number;
    const AlsaIdentity& identity() const noexcept { return _identity; }
    const std::vector<AlsaPcmInfo>& pcms() const noexcept { return _pcms; }
    std::string pcmName(unsigned pcm) const;
    /// Its name below /dev/snd.
    std::string pcmFile(unsigned pcm, HALDirection direction) const;
    /// The card's current name; nothing if the card has disappeared.
    std::optional<std::string> name();
    /// Whether another program uses a direction of a PCM; `isOurs` if this process uses it.
    bool isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs);
    /// The abilities of a direction of a PCM with which another program uses it at present; nothing if they
    /// cannot be read.
    std::optional<AlsaAbilities> abilitiesInUse(unsigned pcm, HALDirection direction) const;

    /// Calls `work` with the controls while no other thread uses them.
    template <class Work> auto withControls(Work work)
    {
        const std::scoped_lock lock(_mutex);
        return work(_mixer);
    }
    /// Readable when readEvents() has events to process.
    const pollfd& descriptor() const noexcept { return _descriptor; }
    /// Updates the controls from the card's events. Returns false if the card has disappeared.
    bool readEvents();

    AlsaReservation& reservation() noexcept { return _reservation; }

private:
    AlsaCard(int number, std::filesystem::path root);
    ~AlsaCard() override;

    int _open();
    void _findPcms();
    std::optional<AlsaCardInfo> _info(int* error = nullptr);
    bool _pcmInfo(unsigned pcm, HALDirection direction, snd_pcm_info_t* info);

    const std::filesystem::path _root;
    AlsaIdentity _identity;
    std::vector<AlsaPcmInfo> _pcms;
    pollfd _descriptor{};
    AlsaReservation _reservation;

    std::mutex _mutex; // guards _mixer
    AlsaMixer _mixer;
};
