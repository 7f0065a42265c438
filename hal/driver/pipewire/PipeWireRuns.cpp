#include "PipeWireRuns.h"

#include <algorithm>
#include <utility>

namespace {

// A node continues to run for a moment after its last client has left it.
constexpr std::chrono::milliseconds endingTime{150};

} // namespace

PipeWireRuns::PipeWireRuns(PipeWireLoop& loop, PipeWireSession& session, const PipeWireMirror& mirror,
                           PipeWireRunsClient& client)
    : _wake(loop, [this] { _update(); }), _environment{session, mirror, _wake}, _client(client),
      _ended(loop,
             [this] {
                 for (PipeWireDevice* const device : std::exchange(_ending, {})) {
                     device->isEndingIO = false;
                     _client.runChanged(*device);
                 }
             }),
      _due(loop, [this] { _update(); })
{}

PipeWireRuns::~PipeWireRuns() = default;

PipeWireRun* PipeWireRuns::_run(const Key& key) const
{
    const auto found = _runs.find(key);
    return found == _runs.end() ? nullptr : found->second.get();
}

// ---- Starting and stopping

void PipeWireRuns::start(PipeWireDevice& device, const CXRef<HALIOProcTable>& table,
                         PipeWireRun::Time deadline, const Reply& reply)
{
    PipeWireRun::Setup setup = _setupOf({{&device, table, device.channels()}}, table, deadline);
    setup.timeline = &device.timeline;
    _begin({&device, 0}, std::move(setup), reply);
}

void PipeWireRuns::stop(PipeWireDevice& device)
{
    _end({&device, 0});
}

void PipeWireRuns::startGroup(uint64_t number, std::vector<PipeWireRun::Member> members,
                              const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
                              const Reply& reply)
{
    const PipeWireDevice* first = nullptr;
    for (const PipeWireRun::Member& member : members) {
        if (!member.device)
            continue;
        first = first ? first : member.device;
        if (member.device->groupDomain() == 0 || member.device->groupDomain() != first->groupDomain() ||
            member.device->wantedTiming(_settings).rate != first->wantedTiming(_settings).rate)
            return reply->finish(kAudioHardwareIllegalOperationError);
    }
    if (!first)
        return reply->finish(kAudioHardwareIllegalOperationError);
    _begin({nullptr, number}, _setupOf(std::move(members), table, deadline), reply);
}

HALStatus PipeWireRuns::setGroupMember(uint64_t number, size_t place, PipeWireDevice* device,
                                       const CXRef<HALIOProcTable>& table)
{
    PipeWireRun* const run = _run({nullptr, number});
    if (!run || place >= run->members().size())
        return kAudioHardwareIllegalOperationError;
    if (device && !_canJoin(*run, *device))
        return kAudioHardwareIllegalOperationError;
    if (PipeWireDevice* const before = run->members()[place].device)
        before->leaveRun(*run);
    run->setDevice(place, device, table);
    if (device)
        device->joinRun(*run);
    _update();
    return kAudioHardwareNoError;
}

bool PipeWireRuns::_canJoin(const PipeWireRun& run, const PipeWireDevice& device) const
{
    return device.groupDomain() != 0 && device.canRunAt(run.wantedTiming().rate, _settings) &&
           std::ranges::all_of(run.members(), [&](const PipeWireRun::Member& member) {
               return !member.device || member.device->groupDomain() == device.groupDomain();
           });
}

void PipeWireRuns::stopGroup(uint64_t number)
{
    _end({nullptr, number});
}

/// A rate or cycle length that a member forces is forced for all; else the first member's is suggested.
PipeWireRun::Setup PipeWireRuns::_setupOf(std::vector<PipeWireRun::Member> members,
                                          const CXRef<HALIOProcTable>& table,
                                          PipeWireRun::Time deadline) const
{
    PipeWireRun::Setup setup;
    setup.table = table;
    setup.deadline = deadline;
    bool isFirst = true;
    for (const PipeWireRun::Member& member : members) {
        if (!member.device)
            continue;
        const PipeWireDeviceIO::WantedTiming wanted = member.device->wantedTiming(_settings);
        if (isFirst || (wanted.forcesRate && !setup.wanted.forcesRate)) {
            setup.wanted.rate = wanted.rate;
            setup.wanted.forcesRate = wanted.forcesRate;
        }
        if (isFirst || (wanted.forcesFrameCount && !setup.wanted.forcesFrameCount)) {
            setup.wanted.frameCount = wanted.frameCount;
            setup.wanted.forcesFrameCount = wanted.forcesFrameCount;
        }
        setup.maxFrames = std::max(setup.maxFrames, member.device->maxFrames(_settings));
        isFirst = false;
    }
    setup.members = std::move(members);
    return setup;
}

void PipeWireRuns::_begin(const Key& key, PipeWireRun::Setup setup, const Reply& reply)
{
    if (!_environment.session.isConnected())
        return reply->finish(kAudioHardwareUnspecifiedError);
    _end(key);
    const std::vector<PipeWireRun::Member> members = setup.members;
    auto& run = _runs[key] = std::make_unique<PipeWireRun>(_environment, std::move(setup), reply);
    for (const PipeWireRun::Member& member : members) {
        if (!member.device)
            continue;
        member.device->joinRun(*run);
        member.device->isEndingIO = false;
        std::erase(_ending, member.device);
    }
    _update();
}

void PipeWireRuns::_end(const Key& key)
{
    const auto run = _runs.extract(key);
    if (!run)
        return;
    std::vector<PipeWireDevice*> devices;
    for (const PipeWireRun::Member& member : run.mapped()->members())
        if (member.device)
            devices.push_back(member.device);
    for (PipeWireDevice* const device : devices) {
        device->leaveRun(*run.mapped());
        if (device->runs.empty()) {
            device->isEndingIO = true;
            _ending.push_back(device);
            _ended.start(endingTime);
        }
    }
    run.mapped().reset(); // no cycle runs from here on
    for (PipeWireDevice* const device : devices)
        _client.runChanged(*device);
}

// ---- Changes

void PipeWireRuns::setClockSettings(const PipeWireClockSettings& settings)
{
    const bool isRateFree = settings.forcedRate == 0 && _settings.forcedRate != 0;
    _settings = settings;
    for (const auto& [key, run] : _runs)
        if (isRateFree)
            run->restoreRate(std::chrono::steady_clock::now());
    _wake.signal();
}

void PipeWireRuns::setRate(const PipeWireDevice& device, double rate)
{
    for (PipeWireDeviceRun* const run : device.runs) {
        PipeWireDeviceIO::WantedTiming wanted = run->wantedTiming();
        wanted.rate = rate;
        wanted.forcesRate = true;
        run->setWantedTiming(wanted);
    }
}

void PipeWireRuns::setFrameCount(const PipeWireDevice& device, uint32_t frameCount)
{
    for (PipeWireDeviceRun* const run : device.runs) {
        PipeWireDeviceIO::WantedTiming wanted = run->wantedTiming();
        wanted.frameCount = frameCount;
        wanted.forcesFrameCount = true;
        run->setWantedTiming(wanted);
    }
}

void PipeWireRuns::deviceChanged(const PipeWireDevice& device)
{
    for (PipeWireDeviceRun* const run : device.runs)
        run->deviceChanged(device);
}

void PipeWireRuns::deviceDisappears(PipeWireDevice& device)
{
    for (PipeWireDeviceRun* const run : std::exchange(device.runs, {}))
        run->deviceDisappears(device);
    _runs.erase({&device, 0});
    std::erase(_ending, &device);
}

void PipeWireRuns::connectionLost()
{
    for (const auto& [key, run] : _runs)
        run->connectionLost();
}

void PipeWireRuns::_update()
{
    const PipeWireRun::Time now = std::chrono::steady_clock::now();
    PipeWireRun::Time next = PipeWireRun::Time::max();
    std::vector<Key> failed;
    for (const auto& [key, run] : _runs) {
        next = std::min(next, run->update(now));
        if (run->takeChanged())
            _publish(*run);
        run->finishStart();
        if (run->hasFailed())
            failed.push_back(key);
    }
    for (const Key& key : failed)
        _end(key);
    if (_runs.empty())
        _due.stop();
    else
        _due.start(std::chrono::ceil<std::chrono::milliseconds>(next - now));
    _client.runsUpdated();
}

void PipeWireRuns::_publish(const PipeWireRun& run)
{
    for (const PipeWireRun::Member& member : run.members())
        if (member.device)
            _client.runChanged(*member.device);
}
