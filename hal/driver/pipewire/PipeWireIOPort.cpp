#include "PipeWireIOPort.h"

#include "PipeWireProperties.h"

#include <algorithm>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/// A second mapping of `size` bytes of shared memory; the bytes stay accessible when the first mapping is
/// removed.
template <typename Item> class SecondMapping {
public:
    SecondMapping(void* first, size_t size) noexcept : _item(static_cast<Item*>(first))
    {
        const size_t offset = reinterpret_cast<uintptr_t>(first) % static_cast<size_t>(sysconf(_SC_PAGESIZE));
        // mremap(2): an old size of 0 adds a mapping to a shared one, which remains.
        void* const pages = mremap(static_cast<std::byte*>(first) - offset, 0, offset + size, MREMAP_MAYMOVE);
        if (pages == MAP_FAILED)
            return;
        _pages = pages;
        _mappedSize = offset + size;
        _item = reinterpret_cast<Item*>(static_cast<std::byte*>(pages) + offset);
    }
    ~SecondMapping()
    {
        if (_pages)
            munmap(_pages, _mappedSize);
    }
    SecondMapping(const SecondMapping&) = delete;
    SecondMapping& operator=(const SecondMapping&) = delete;

    /// In the second mapping; in the first one if there can be no second one.
    Item* get() const noexcept CX_REALTIME { return _item; }

private:
    Item* _item;
    void* _pages = nullptr;
    size_t _mappedSize = 0;
};

} // namespace

/// The description of an output's buffer, and its memory.
struct PipeWireIOPort::Memory {
    Memory(pw_mempool* pool, const spa_data& data)
        : samples(data.data, data.maxsize), byteSize(data.data ? data.maxsize : 0),
          chunk(data.chunk, sizeof(spa_chunk)), block(pw_mempool_find_ptr(pool, data.chunk))
    {
        if (block)
            ++block->ref;
    }
    ~Memory()
    {
        if (block)
            pw_memblock_unref(block);
    }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    const SecondMapping<float> samples;
    const size_t byteSize;
    const SecondMapping<spa_chunk> chunk;
    pw_memblock* const block; // of the chunk; null if the memory is not the pool's
};

PipeWireIOPort::PipeWireIOPort(pw_mempool* pool, bool isOutput) : _pool(pool), _isOutput(isOutput) {}

PipeWireIOPort::~PipeWireIOPort() = default;

void PipeWireIOPort::addTo(pw_filter* filter, const char* name)
{
    const PipeWireProperties properties{{PW_KEY_FORMAT_DSP, "32 bit float mono audio"},
                                        {PW_KEY_PORT_NAME, name}};
    _port = pw_filter_add_port(filter, _isOutput ? PW_DIRECTION_OUTPUT : PW_DIRECTION_INPUT,
                               PW_FILTER_PORT_FLAG_MAP_BUFFERS, sizeof(PipeWireIOPort*), properties.copy(),
                               nullptr, 0);
    if (_port)
        *static_cast<PipeWireIOPort**>(_port) = this;
}

void PipeWireIOPort::addBuffer(pw_buffer& buffer)
{
    if (_isOutput)
        buffer.user_data =
            _memory.emplace_back(std::make_unique<Memory>(_pool, buffer.buffer->datas[0])).get();
    _isOpen.store(true);
}

void PipeWireIOPort::removeBuffer(pw_buffer& buffer)
{
    std::erase_if(_memory, [&](const auto& each) { return each.get() == buffer.user_data; });
    buffer.user_data = nullptr;
}

bool PipeWireIOPort::hasLostMemory() const
{
    return std::ranges::any_of(
        _memory, [](const auto& each) { return each->block && each->block->id == SPA_ID_INVALID; });
}

// ---- The audio thread

float* PipeWireIOPort::samples(uint32_t frameCount) noexcept
{
    pw_buffer* const buffer = _isOpen.load() ? pw_filter_dequeue_buffer(_port) : nullptr;
    if (!buffer)
        return nullptr;
    const size_t byteCount = size_t{frameCount} * sizeof(float);
    float* const samples = _isOutput ? _outputSamples(*buffer, byteCount) : _inputSamples(*buffer, byteCount);
    pw_filter_queue_buffer(_port, buffer); // is sent at the end of the cycle
    return samples;
}

float* PipeWireIOPort::_outputSamples(const pw_buffer& buffer, size_t byteCount) const noexcept
{
    const auto* const memory = static_cast<const Memory*>(buffer.user_data);
    if (!memory)
        return nullptr;
    const bool fits = byteCount <= memory->byteSize;
    spa_chunk& chunk = *memory->chunk.get();
    chunk.offset = 0;
    chunk.stride = sizeof(float);
    chunk.size = fits ? static_cast<uint32_t>(byteCount) : 0;
    return fits ? memory->samples.get() : nullptr;
}

float* PipeWireIOPort::_inputSamples(const pw_buffer& buffer, size_t byteCount) noexcept
{
    const spa_data& data = buffer.buffer->datas[0];
    if (!data.data || data.chunk->offset > data.maxsize || byteCount > data.maxsize - data.chunk->offset ||
        byteCount > data.chunk->size)
        return nullptr;
    return reinterpret_cast<float*>(static_cast<std::byte*>(data.data) + data.chunk->offset);
}
