#include "AlsaDriver.h"

#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int maxCards = 256; // the kernel has room for 32, or 256

HALDirection directionOf(HALDefault which)
{
    return which == HALDefault::Input ? HALDirection::Input : HALDirection::Output;
}

} // namespace

CXRef<AlsaDriver> AlsaDriver::init(uint32_t periodCount, std::filesystem::path root)
{
    return CXRef<AlsaDriver>::adopt(new AlsaDriver(periodCount, std::move(root)));
}

AlsaDriver::AlsaDriver(uint32_t periodCount, std::filesystem::path root)
    : _periodCount(std::clamp(periodCount, 2U, 16U)), _root(std::move(root)),
      _wakeUps(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

AlsaDriver::~AlsaDriver()
{
    stop();
    close(_wakeUps);
}

void AlsaDriver::start(HALDriverSink& sink)
{
    _sink = &sink;
    _scan();
    _thread = dxr::Thread("dxr-alsa", [this] { _run(); });
}

void AlsaDriver::stop()
{
    _isStopping = true;
    _wake();
    _thread.join();
    for (auto& [number, entry] : _cards)
        for (const CXRef<AlsaDevice>& device : entry.devices)
            device->detach();
    _cards.clear();
    const std::scoped_lock lock(_defaultsMutex);
    _devices.clear();
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
    while (!_isStopping) {
        std::vector<pollfd> polled{{_wakeUps, POLLIN, 0}, {_folder.descriptor(), POLLIN, 0}};
        std::vector<int> numbers;
        for (const auto& [number, entry] : _cards) {
            polled.push_back(entry.card->descriptor());
            polled.push_back({entry.card->reservation().descriptor(), POLLIN, 0});
            numbers.push_back(number);
        }
        if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR)
            usleep(100'000); // out of memory: no reason to spin
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = read(_wakeUps, &count, sizeof count);
        if (_isStopping)
            return;
        for (size_t i = 0; i < numbers.size(); ++i)
            if (polled[2 + 2 * i].revents != 0)
                _readCard(numbers[i]);
        _folder.read(
            [this](AlsaFolderWatch::Event event, const std::string& name) { _fileChanged(event, name); });
        for (auto& [number, entry] : _cards) {
            entry.card->reservation().process();
            for (const CXRef<AlsaDevice>& device : entry.devices)
                device->refreshRun();
        }
    }
}

void AlsaDriver::_scan()
{
    for (int number = 0; number < maxCards; ++number)
        _cardAppeared(number);
}

void AlsaDriver::_fileChanged(AlsaFolderWatch::Event event, const std::string& name)
{
    if (event == AlsaFolderWatch::Event::Unknown)
        return _scan();
    int number = -1;
    if (std::sscanf(name.c_str(), "controlC%3d", &number) == 1 && number >= 0) {
        if (event == AlsaFolderWatch::Event::Gone)
            _cardGone(number);
        else if (event == AlsaFolderWatch::Event::Appeared)
            _cardAppeared(number);
    } else if (std::sscanf(name.c_str(), "pcmC%3d", &number) == 1 && event != AlsaFolderWatch::Event::Gone) {
        _updateDevices(number);
    }
}

/// A card's control device comes last, and the card is complete then; its rights may come later.
void AlsaDriver::_cardAppeared(int number)
{
    if (!_cards.contains(number)) {
        Entry entry;
        entry.card = AlsaCard::open(number, _root);
        if (!entry.card)
            return;
        for (const AlsaPcmInfo& pcm : entry.card->pcms())
            entry.devices.push_back(AlsaDevice::init(entry.card, pcm, _periodCount, [this] { _wake(); }));
        _cards.emplace(number, std::move(entry));
    }
    _updateDevices(number);
}

/// A device that could not be asked before may be free now.
void AlsaDriver::_updateDevices(int number)
{
    const auto card = _cards.find(number);
    if (card == _cards.end())
        return;
    for (const CXRef<AlsaDevice>& device : card->second.devices) {
        const bool isAdded = device->update(*_sink);
        const std::scoped_lock lock(_defaultsMutex);
        if (isAdded && std::ranges::find(_devices, device) == _devices.end())
            _devices.push_back(device);
    }
    _updateDefaults();
}

void AlsaDriver::_cardGone(int number)
{
    const auto gone = _cards.extract(number);
    if (!gone)
        return;
    {
        const std::scoped_lock lock(_defaultsMutex);
        for (const CXRef<AlsaDevice>& device : gone.mapped().devices) {
            std::erase(_devices, device);
            std::ranges::replace(_defaults, device, CXRef<AlsaDevice>());
        }
    }
    for (const CXRef<AlsaDevice>& device : gone.mapped().devices)
        device->remove();
    _updateDefaults();
}

void AlsaDriver::_readCard(int number)
{
    const auto card = _cards.find(number);
    const int events = card == _cards.end() ? 0 : card->second.card->readEvents();
    if (events < 0)
        return _cardGone(number);
    if (events > 0)
        for (const CXRef<AlsaDevice>& device : card->second.devices)
            device->refreshControls();
}

// ---- Default devices

HALStatus AlsaDriver::chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline /*deadline*/)
{
    auto* const chosen = dynamic_cast<AlsaDevice*>(&device);
    if (!chosen)
        return kAudioHardwareIllegalOperationError;
    {
        const std::scoped_lock lock(_defaultsMutex);
        _chosen[static_cast<size_t>(which)] = chosen->state().uid;
    }
    _updateDefaults();
    return kAudioHardwareNoError;
}

void AlsaDriver::_updateDefaults()
{
    const std::scoped_lock lock(_defaultsMutex);
    for (const HALDefault which : {HALDefault::Input, HALDefault::Output, HALDefault::SystemOutput}) {
        const auto place = static_cast<size_t>(which);
        const CXRef<AlsaDevice> best = _bestDefault(directionOf(which), _chosen[place], _defaults[place]);
        if (best == _defaults[place])
            continue;
        _defaults[place] = best;
        _sink->defaultChanged(which, best.get());
    }
}

/// The chosen device while it is there, else the one that it was, else the first card's first; those that lead to a screen
/// come last.
CXRef<AlsaDevice> AlsaDriver::_bestDefault(HALDirection direction, const std::string& chosenUID,
                                           const CXRef<AlsaDevice>& current) const
{
    CXRef<AlsaDevice> best;
    std::tuple<int, bool, int, unsigned> bestRank;
    for (const CXRef<AlsaDevice>& device : _devices) {
        const HALDeviceState state = device->state();
        if (state[direction].streams.empty())
            continue;
        const int preference = state.uid == chosenUID ? 0 : device == current ? 1 : 2;
        const std::tuple rank{preference, state.transportType == kAudioDeviceTransportTypeHDMI,
                              device->cardNumber(), device->pcm().number};
        if (!best || rank < bestRank) {
            best = device;
            bestRank = rank;
        }
    }
    return best;
}
