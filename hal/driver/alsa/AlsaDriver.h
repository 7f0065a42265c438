#pragma once

#include "AlsaDevice.h"

#include <filesystem>
#include <map>
#include <set>

/// The sound cards of this machine without a sound server: a device for each PCM, with volumes, inputs and
/// jacks. Follows cards as they appear and disappear. The default devices are those of this process only.
/// Threads: as HALHardwareDriver. One thread watches the cards; each running device has an IO thread.
/// Fails:   without cards there are no devices until a card appears. A card that another program uses stays
///          in the list if it was free before; starting it returns 'what'.
class AlsaDriver final : public HALHardwareDriver {
public:
    /// The ring buffers of the devices hold `periodCount` cycles: 3, or 2 for less latency but less time for
    /// each cycle. The kernel's /sys and /proc are below `root`.
    static CXRef<AlsaDriver> init(uint32_t periodCount = 3, std::filesystem::path root = "/");

    void start(HALDriverSink& sink) override;
    void stop() override;
    HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline) override;

private:
    struct Entry {
        CXRef<AlsaCard> card;
        std::vector<CXRef<AlsaDevice>> devices;
    };

    AlsaDriver(uint32_t periodCount, std::filesystem::path root);
    ~AlsaDriver() override;

    void _run();
    enum class Event { None, FolderAlone, Any };
    Event _wait();
    void _wake() const noexcept;
    void _watchFolder();
    bool _readFolder(std::set<int>& numbers);
    bool _isOwnSearch(std::string_view file) const;
    void _openCard(int number);
    void _dropCardsThatAreGone();
    void _refresh();
    void _updateDefaults();
    CXRef<AlsaDevice> _bestDefault(HALDirection direction, const std::string& chosenUID,
                                   const CXRef<AlsaDevice>& current) const;

    const uint32_t _periodCount;
    const std::filesystem::path _root;
    const int _wakeUps; // eventfd: a run has changed, or the thread must end
    const int _folder;  // inotify; -1 when nothing can be watched
    int _devWatch = -1; // the inotify watch of /dev
    std::atomic<bool> _isStopping{false};
    // Used by start() and the watching thread: what could not be opened, perhaps for lack of descriptors.
    std::set<int> _unopened; // cards, by number
    bool _isShort = false;   // cards or devices
    int _looks = 0;          // without an event between them, other than the searches for a PCM
    HALDriverSink* _sink = nullptr;

    std::mutex _mutex; // guards what follows; held while a default device is reported
    // By number. Changed only by start(), stop() and the watching thread, which read it without the mutex.
    std::map<int, Entry> _cards;
    std::array<std::string, 3> _chosen; // UIDs, by HALDefault; empty: none chosen
    std::array<CXRef<AlsaDevice>, 3> _defaults;

    dxr::Thread _thread;
};
