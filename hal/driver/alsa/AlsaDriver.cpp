#include "AlsaDriver.h"

#include "AlsaQuiet.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr int maxCards = 256;                                         // the kernel's limit is 32 or 256
constexpr uint32_t cardAppears = IN_CREATE | IN_MOVED_TO | IN_ATTRIB; // its file, or access rights
constexpr uint32_t cardIsUsed = IN_OPEN | IN_CLOSE;                   // by any program
constexpr int maxLooks = 120; // a minute; then what cannot be opened waits for an event

} // namespace

CXRef<AlsaDriver> AlsaDriver::init(uint32_t periodCount, std::filesystem::path root)
{
    return CXRef<AlsaDriver>::adopt(new AlsaDriver(periodCount, std::move(root)));
}

AlsaDriver::AlsaDriver(uint32_t periodCount, std::filesystem::path root)
    : _periodCount(std::clamp(periodCount, 2U, 16U)), _root(std::move(root)),
      _wakeUps(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), _folder(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{}

AlsaDriver::~AlsaDriver()
{
    stop();
    close(_wakeUps);
    close(_folder);
}

void AlsaDriver::start(HALDriverSink& sink)
{
    const AlsaQuiet quiet;
    _sink = &sink;
    _isStopping = false; // an earlier start may have failed
    _watchFolder();
    for (int number = 0; number < maxCards; ++number)
        _openCard(number);
    _refresh();
    _thread = dxr::Thread("dxr-alsa", [this] { _run(); });
}

void AlsaDriver::stop()
{
    const AlsaQuiet quiet;
    _isStopping = true;
    _wake();
    _thread.join();
    for (auto& [number, entry] : _cards)
        for (const CXRef<AlsaDevice>& device : entry.devices)
            device->detach();
    const std::scoped_lock lock(_mutex);
    _cards.clear();
    _defaults = {};
}

void AlsaDriver::_wake() const noexcept
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(_wakeUps, &one, sizeof one);
}

// ---- The watching thread

void AlsaDriver::_run()
{
    const AlsaQuiet quiet;
    for (;;) {
        const Event event = _wait();
        if (_isStopping)
            return;
        for (const auto& [number, entry] : _cards)
            entry.card->reservation().process();
        std::set<int> appeared;
        if (!_readFolder(appeared) && event == Event::FolderAlone)
            continue;
        _looks = event == Event::None ? std::min(_looks + 1, maxLooks) : 0;
        _dropCardsThatAreGone(); // first, because a new card may reuse the number
        appeared.merge(std::exchange(_unopened, {}));
        for (const int number : appeared)
            _openCard(number);
        _refresh();
    }
}

/// Waits until a card, a run, another program or the bus has an event, or until it is time to look again.
AlsaDriver::Event AlsaDriver::_wait()
{
    std::vector<pollfd> polled{{_wakeUps, POLLIN, 0}, {_folder, POLLIN, 0}};
    for (const auto& [number, entry] : _cards) {
        polled.push_back(entry.card->descriptor());
        polled.push_back({entry.card->reservation().descriptor(), POLLIN, 0});
    }
    const bool isBlind = _wakeUps < 0 || _folder < 0; // out of descriptors: look now and then
    const bool looksAgain = isBlind || (_isShort && _looks < maxLooks);
    const int ready = poll(polled.data(), polled.size(), looksAgain ? 500 : -1);
    if (ready < 0 && errno != EINTR)
        usleep(100'000); // out of memory: do not spin
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = read(_wakeUps, &count, sizeof count);
    if (ready <= 0)
        return Event::None;
    const auto isFolder = [this](const pollfd& each) { return each.fd == _folder || each.revents == 0; };
    return std::ranges::all_of(polled, isFolder) ? Event::FolderAlone : Event::Any;
}

/// The folder /dev/snd may appear only with the first card.
void AlsaDriver::_watchFolder()
{
    _devWatch = inotify_add_watch(_folder, "/dev", IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    inotify_add_watch(_folder, "/dev/snd", cardAppears | cardIsUsed | IN_ONLYDIR);
}

/// Adds the numbers of the cards that may have appeared or become accessible. A card's control device is
/// created last, so the card is then complete. Returns true if anything may have changed: control devices are
/// opened by every search for a PCM, our own included, which would wake us again and again.
bool AlsaDriver::_readFolder(std::set<int>& numbers)
{
    bool hasChanged = false;
    const auto addAll = [&] {
        _watchFolder();
        for (int number = 0; number < maxCards; ++number)
            numbers.insert(number);
        hasChanged = true;
    };
    if (_folder < 0)
        addAll();
    alignas(inotify_event) char room[4096];
    for (ssize_t size; (size = read(_folder, room, sizeof room)) > 0;) {
        inotify_event event;
        for (const char* at = room; at < room + size; at += sizeof event + event.len) {
            std::memcpy(&event, at, sizeof event);
            const char* const name = event.len > 0 ? at + sizeof event : "";
            int number = -1;
            hasChanged = hasChanged || (event.mask & cardIsUsed) == 0 ||
                         (std::strncmp(name, "pcm", 3) == 0 && !_isOwnSearch(name));
            if ((event.mask & IN_Q_OVERFLOW) != 0 ||
                (event.wd == _devWatch && std::strcmp(name, "snd") == 0)) {
                addAll();
            } else if ((event.mask & cardAppears) != 0 && std::sscanf(name, "controlC%3d", &number) == 1) {
                numbers.insert(number);
            }
        }
    }
    return hasChanged;
}

/// Whether a PCM may have been opened and closed by our own search, which then ran out of memory. The next
/// search is at its time: at once, it would cause the next event.
bool AlsaDriver::_isOwnSearch(std::string_view file) const
{
    return std::ranges::any_of(_cards, [file](const auto& card) {
        return std::ranges::any_of(card.second.devices,
                                   [file](const auto& device) { return device->isShortOf(file); });
    });
}

void AlsaDriver::_openCard(int number)
{
    if (_cards.contains(number))
        return;
    int error = 0;
    Entry entry{AlsaCard::open(number, _root, error), {}};
    if (!entry.card) {
        if (alsaIsShortage(error, "controlC" + std::to_string(number)))
            _unopened.insert(number);
        return;
    }
    for (const AlsaPcmInfo& pcm : entry.card->pcms())
        entry.devices.push_back(AlsaDevice::init(entry.card, pcm, _periodCount, *_sink, [this] { _wake(); }));
    _looks = 0; // each card has its minute, even if no event announces it because the folder is not watched
    const std::scoped_lock lock(_mutex);
    _cards.emplace(number, std::move(entry));
}

void AlsaDriver::_dropCardsThatAreGone()
{
    std::vector<CXRef<AlsaDevice>> gone;
    for (auto card = _cards.begin(); card != _cards.end();) {
        if (card->second.card->readEvents()) {
            ++card;
            continue;
        }
        const std::scoped_lock lock(_mutex);
        for (const CXRef<AlsaDevice>& device : card->second.devices) {
            std::ranges::replace(_defaults, device, CXRef<AlsaDevice>());
            gone.push_back(device);
        }
        card = _cards.erase(card);
    }
    // The mutex is not held: this waits for the IO callbacks to end, and one of them may be choosing a
    // default device.
    for (const CXRef<AlsaDevice>& device : gone)
        if (device->detach())
            _sink->deviceRemoved(*device);
}

/// Refreshes every device after any event. A device reports only what has changed.
void AlsaDriver::_refresh()
{
    _isShort = !_unopened.empty();
    for (const auto& [number, entry] : _cards)
        for (const CXRef<AlsaDevice>& device : entry.devices)
            if (!device->refresh(_looks == maxLooks))
                _isShort = true;
    const std::scoped_lock lock(_mutex);
    _updateDefaults();
}

// ---- Default devices

HALStatus AlsaDriver::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline /*deadline*/)
{
    auto* const chosen = dynamic_cast<AlsaDevice*>(&device);
    if (!chosen)
        return kAudioHardwareIllegalOperationError;
    const std::scoped_lock lock(_mutex);
    _chosen[static_cast<size_t>(which)] = chosen->state().uid;
    _updateDefaults();
    return kAudioHardwareNoError;
}

/// _mutex is held.
void AlsaDriver::_updateDefaults()
{
    for (const HALDefault which : {HALDefault::Input, HALDefault::Output, HALDefault::SystemOutput}) {
        const auto place = static_cast<size_t>(which);
        const auto direction = which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
        const CXRef<AlsaDevice> best = _bestDefault(direction, _chosen[place], _defaults[place]);
        if (best == _defaults[place])
            continue;
        _defaults[place] = best;
        _sink->defaultChanged(which, best.get());
    }
}

/// Returns the chosen device if present, else the current default, else the first device of the first card.
/// HDMI devices come last.
CXRef<AlsaDevice> AlsaDriver::_bestDefault(HALDirection direction, const std::string& chosenUID,
                                           const CXRef<AlsaDevice>& current) const
{
    CXRef<AlsaDevice> best;
    std::pair<int, bool> bestRank;
    for (const auto& [number, entry] : _cards) {
        for (const CXRef<AlsaDevice>& device : entry.devices) {
            const HALDeviceState state = device->state();
            const std::pair rank{state.uid == chosenUID ? 0
                                 : device == current    ? 1
                                                        : 2,
                                 state.transportType == kAudioDeviceTransportTypeHDMI};
            if (!state[direction].streams.empty() && (!best || rank < bestRank)) {
                best = device;
                bestRank = rank;
            }
        }
    }
    return best;
}
