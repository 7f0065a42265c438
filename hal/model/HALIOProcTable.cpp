#include "HALIOProcTable.h"

#include "GlobalQueue.h"
#include "HALNotifier.h"

#include <algorithm>
#include <cstring>

namespace {

/// A buffer list with room for a number of streams.
class BufferList {
public:
    explicit BufferList(size_t streams)
        : _bytes(offsetof(AudioBufferList, buffers) + streams * sizeof(AudioBuffer))
    {
        list()->numberBuffers = static_cast<uint32_t>(streams);
    }
    AudioBufferList* list() noexcept { return reinterpret_cast<AudioBufferList*>(_bytes.data()); }
    /// Indexes through a pointer, because the array is declared with one element.
    AudioBuffer& operator[](size_t stream) noexcept { return *(&list()->buffers[0] + stream); }

private:
    std::vector<std::byte> _bytes; // operator new aligns it sufficiently for a pointer
};

} // namespace

/// A running cycle, on this thread's stack, and the cycle that it is nested in.
struct HALIOProcTable::Running {
    HALIOProcTable* table;
    const Running* outer;
};

// Initial-exec, because the default model may allocate when a thread first accesses the variable.
thread_local const HALIOProcTable::Running* HALIOProcTable::running
    __attribute__((tls_model("initial-exec"))) = nullptr;

struct HALIOProcTable::Proc {
    Proc(AudioDeviceIOProcID name, AudioDeviceIOBlock callback) : procID(name), block(std::move(callback)) {}

    const AudioDeviceIOProcID procID;
    const AudioDeviceIOBlock block;
    std::atomic<bool> started{false};
    /// The streams of a direction that are off. Beyond the first thousand they are on or off together.
    struct Usage {
        std::array<std::atomic<bool>, 1024> isOff{};
        std::atomic<bool> isRestOff{false};
    };
    std::array<Usage, 2> usage; // by HALDirection

    bool isOff(HALDirection direction, size_t stream) const noexcept
    {
        const Usage& streams = usage[static_cast<size_t>(direction)];
        const auto& isOff = stream < streams.isOff.size() ? streams.isOff[stream] : streams.isRestOff;
        return isOff.load(std::memory_order_relaxed);
    }
};

/// Holds the control lock, except on the IO thread: no callback is freed during a cycle, so no lock is
/// needed.
class HALIOProcTable::ControlLock {
public:
    explicit ControlLock(const HALIOProcTable& table) : _lock(table._mutex, std::defer_lock)
    {
        if (!table.isOnIOThread())
            _lock.lock();
    }

private:
    std::unique_lock<std::mutex> _lock;
};

/// The buffers that a cycle of the current streams needs, allocated before the cycle.
struct HALIOProcTable::Layout {
    Layout(std::span<const uint32_t> inputs, std::span<const uint32_t> outputs, uint32_t frames)
        : inputChannels(inputs.begin(), inputs.end()), outputChannels(outputs.begin(), outputs.end()),
          maxFrames(frames), input(inputs.size()), output(outputs.size()), room(outputs.size())
    {
        for (const uint32_t channels : outputs)
            scratch.emplace_back(size_t{channels} * frames);
    }

    const std::vector<uint32_t> inputChannels;
    const std::vector<uint32_t> outputChannels;
    const uint32_t maxFrames;
    BufferList input;
    BufferList output;
    std::vector<std::vector<float>> scratch; // one per output stream, for all callbacks but the first
    std::vector<float*> room;                // one per output stream, for the callback in progress; null: off

    bool fits(const HALCycle& cycle) const noexcept
    {
        const auto sameChannels = [](const HALStreamBlock& block, uint32_t channels) {
            return block.channelCount == channels;
        };
        return cycle.frameCount <= maxFrames &&
               std::ranges::equal(cycle.input, inputChannels, sameChannels) &&
               std::ranges::equal(cycle.output, outputChannels, sameChannels);
    }
};

CXRef<HALIOProcTable> HALIOProcTable::initWithDevice(AudioObjectID deviceID, HALNotifier& notifier)
{
    return CXRef<HALIOProcTable>::adopt(new HALIOProcTable(deviceID, notifier));
}

CXRef<HALIOProcTable> HALIOProcTable::initBeside(const HALIOProcTable& other)
{
    return initWithDevice(other._overload->objectID, other._notifier);
}

HALIOProcTable::HALIOProcTable(AudioObjectID deviceID, HALNotifier& notifier)
    : _notifier(notifier), _overload(CXRef<HALIOEvent>::adopt(new HALIOEvent))
{
    _overload->objectID = deviceID;
    _overload->address = {kAudioDeviceProcessorOverload, kAudioObjectPropertyScopeGlobal, 0};
}

HALIOProcTable::~HALIOProcTable()
{
    for (std::atomic<Proc*>& slot : _slots)
        delete slot.load();
    delete _layout.load();
}

// ---- Control

AudioDeviceIOProcID HALIOProcTable::create(const AudioDeviceIOBlock& block)
{
    // IDs are numbers and never reused, so that the ID of a removed callback is not found.
    static std::atomic<uintptr_t> lastName{0};
    auto proc = std::make_unique<Proc>(reinterpret_cast<AudioDeviceIOProcID>(++lastName), block);
    const std::scoped_lock lock(_mutex);
    if (_closed)
        return nullptr;
    for (std::atomic<Proc*>& slot : _slots) {
        if (!slot.load(std::memory_order_relaxed)) {
            const AudioDeviceIOProcID name = proc->procID;
            slot.store(proc.release());
            return name;
        }
    }
    return nullptr;
}

bool HALIOProcTable::destroy(AudioDeviceIOProcID procID)
{
    std::unique_ptr<Proc> proc;
    {
        const ControlLock lock(*this);
        for (std::atomic<Proc*>& slot : _slots) {
            Proc* found = slot.load();
            if (found && found->procID == procID && slot.compare_exchange_strong(found, nullptr))
                proc.reset(found); // the call that gets the pointer frees it
        }
    }
    if (!proc) { // another call has removed it, and may still wait for its cycle
        _waitForCycle();
        return false;
    }
    _retire(std::move(proc));
    return true;
}

bool HALIOProcTable::start(AudioDeviceIOProcID procID)
{
    const std::scoped_lock lock(_mutex);
    Proc* proc = _find(procID);
    if (proc)
        proc->started.store(true);
    return proc != nullptr;
}

bool HALIOProcTable::stop(AudioDeviceIOProcID procID)
{
    bool wasStarted = false;
    {
        const ControlLock lock(*this);
        if (Proc* proc = _find(procID))
            wasStarted = proc->started.exchange(false);
    }
    _waitForCycle();
    return wasStarted;
}

bool HALIOProcTable::contains(AudioDeviceIOProcID procID) const
{
    const std::scoped_lock lock(_mutex);
    return _find(procID) != nullptr;
}

size_t HALIOProcTable::startedCount() const
{
    const std::scoped_lock lock(_mutex);
    return static_cast<size_t>(std::ranges::count_if(_slots, [](const std::atomic<Proc*>& slot) {
        const Proc* proc = slot.load(std::memory_order_relaxed);
        return proc && proc->started.load(std::memory_order_relaxed);
    }));
}

void HALIOProcTable::close()
{
    std::vector<std::unique_ptr<Proc>> procs;
    {
        const std::scoped_lock lock(_mutex);
        _closed = true;
        for (std::atomic<Proc*>& slot : _slots)
            procs.emplace_back(slot.exchange(nullptr));
    }
    std::erase(procs, nullptr);
    for (std::unique_ptr<Proc>& proc : procs)
        _retire(std::move(proc));
}

std::vector<uint32_t> HALIOProcTable::streamUsage(AudioDeviceIOProcID procID, HALDirection direction,
                                                  size_t streamCount) const
{
    const std::scoped_lock lock(_mutex);
    const Proc* proc = _find(procID);
    if (!proc)
        return {};
    std::vector<uint32_t> usage(streamCount);
    for (size_t stream = 0; stream < usage.size(); ++stream)
        usage[stream] = proc->isOff(direction, stream) ? 0 : 1;
    return usage;
}

bool HALIOProcTable::setStreamUsage(AudioDeviceIOProcID procID, HALDirection direction,
                                    std::span<const uint32_t> usage)
{
    const std::scoped_lock lock(_mutex);
    Proc* proc = _find(procID);
    if (!proc)
        return false;
    Proc::Usage& streams = proc->usage[static_cast<size_t>(direction)];
    for (size_t stream = 0; stream < streams.isOff.size(); ++stream)
        streams.isOff[stream].store(stream >= usage.size() || usage[stream] == 0, std::memory_order_relaxed);
    const auto rest = usage.subspan(std::min(usage.size(), streams.isOff.size()));
    streams.isRestOff.store(std::ranges::all_of(rest, [](uint32_t isOn) { return isOn == 0; }),
                            std::memory_order_relaxed);
    return true;
}

void HALIOProcTable::prepare(std::span<const uint32_t> inputChannels,
                             std::span<const uint32_t> outputChannels, uint32_t maxFrames)
{
    auto fresh = std::make_unique<Layout>(inputChannels, outputChannels, maxFrames);
    std::unique_ptr<Layout> old;
    {
        const std::scoped_lock lock(_mutex);
        old.reset(_layout.exchange(fresh.release()));
    }
    _waitForCycle();
}

void HALIOProcTable::setTiming(double nominalSampleRate, uint32_t bufferFrameSize) noexcept
{
    _sampleRate.store(nominalSampleRate, std::memory_order_relaxed);
    _frameSize.store(bufferFrameSize, std::memory_order_relaxed);
}

HALIOProcTable::Proc* HALIOProcTable::_find(AudioDeviceIOProcID procID) const
{
    for (const std::atomic<Proc*>& slot : _slots) {
        Proc* proc = slot.load(); // once: on the IO thread, the slot may be filled anew at any time
        if (proc && proc->procID == procID)
            return proc;
    }
    return nullptr;
}

void HALIOProcTable::_waitForCycle() const noexcept
{
    if (isOnIOThread())
        return;
    const uint32_t cycle = _cycle.load();
    if (cycle % 2 != 0)
        _cycle.wait(cycle);
}

void HALIOProcTable::_retire(std::unique_ptr<Proc> proc) // freed without the lock: its closure may call us
{
    if (isOnIOThread()) {
        // The running callback may be this one: another thread frees it after this cycle has ended.
        const CXRealtimeExemption exemption("handing over a callback that ends itself");
        dxr::GlobalQueue::highPriority().async(
            [self = CXRef(this), raw = proc.release()] { self->_retire(std::unique_ptr<Proc>(raw)); });
        return;
    }
    _waitForCycle();
    // Waits for control calls on other threads, which may still use `proc`. Calls that begin now no longer
    // find it.
    const std::scoped_lock lock(_mutex);
}

// ---- The IO thread

namespace {

void silence(float* samples, size_t count) noexcept
{
    if (samples)
        std::memset(samples, 0, count * sizeof(float));
}

void describe(AudioBuffer& buffer, const HALStreamBlock& block, float* samples, uint32_t frameCount) noexcept
{
    buffer.numberChannels = block.channelCount;
    buffer.dataByteSize =
        samples ? frameCount * block.channelCount * static_cast<uint32_t>(sizeof(float)) : 0;
    buffer.data = samples;
}

} // namespace

void HALIOProcTable::runCycle(const HALCycle& cycle) noexcept
{
    const CXRealtimeScope realtime;
    const Running entry{this, running};
    running = &entry;
    _cycle.fetch_add(1);
    for (const HALStreamBlock& block : cycle.output)
        silence(block.samples, size_t{block.channelCount} * cycle.frameCount);
    // A cycle that does not fit has a new layout of streams, for which the driver is about to call prepare().
    if (Layout* layout = _layout.load(); layout && layout->fits(cycle))
        _callProcs(cycle, *layout);
    _cycle.fetch_add(1);
    _cycle.notify_all(); // costs one load if no thread waits, and never blocks
    running = entry.outer;
}

void HALIOProcTable::_callProcs(const HALCycle& cycle, Layout& layout) noexcept
{
    bool isFirst = true; // the first callback writes to the device's buffers, the others to scratch
    for (const std::atomic<Proc*>& slot : _slots) {
        const Proc* proc = slot.load();
        if (!proc || !proc->started.load())
            continue;
        _call(*proc, cycle, layout, !isFirst);
        isFirst = false;
    }
}

void HALIOProcTable::_call(const Proc& proc, const HALCycle& cycle, Layout& layout, bool intoScratch) noexcept
{
    for (size_t stream = 0; stream < cycle.input.size(); ++stream) {
        const bool isOff = proc.isOff(HALDirection::Input, stream);
        describe(layout.input[stream], cycle.input[stream], isOff ? nullptr : cycle.input[stream].samples,
                 cycle.frameCount);
    }
    for (size_t stream = 0; stream < cycle.output.size(); ++stream) {
        float* samples = intoScratch ? layout.scratch[stream].data() : cycle.output[stream].samples;
        if (!cycle.output[stream].samples || proc.isOff(HALDirection::Output, stream))
            samples = nullptr;
        layout.room[stream] = samples; // another thread may switch the stream on before the callback returns
        if (intoScratch)
            silence(samples, size_t{cycle.output[stream].channelCount} * cycle.frameCount);
        describe(layout.output[stream], cycle.output[stream], samples, cycle.frameCount);
    }

    const bool hasInput = !cycle.input.empty();
    const bool hasOutput = !cycle.output.empty();
    proc.block(&cycle.now, hasInput ? layout.input.list() : nullptr, hasInput ? &cycle.inputTime : nullptr,
               hasOutput ? layout.output.list() : nullptr, hasOutput ? &cycle.outputTime : nullptr);

    for (size_t stream = 0; intoScratch && stream < cycle.output.size(); ++stream) {
        const float* from = layout.room[stream];
        float* to = cycle.output[stream].samples;
        for (size_t i = 0; from && i < size_t{cycle.output[stream].channelCount} * cycle.frameCount; ++i)
            to[i] += from[i];
    }
}

void HALIOProcTable::reportOverload() noexcept
{
    _notifier.postFromIOThread(_overload);
}

bool HALIOProcTable::isOnIOThread() const noexcept
{
    for (const Running* each = running; each; each = each->outer) {
        if (each->table == this)
            return true;
    }
    return false;
}

HALIOProcTable* HALIOProcTable::onIOThreadOf(AudioObjectID deviceID) noexcept
{
    for (const Running* each = running; each; each = each->outer) {
        if (each->table->_overload->objectID == deviceID)
            return each->table;
    }
    return nullptr;
}
