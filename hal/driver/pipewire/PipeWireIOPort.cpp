#include "PipeWireIOPort.h"

#include "PipeWireProperties.h"

#include <algorithm>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>

/// The description of an output's buffer. While it exists, the buffer's memory stays mapped.
struct PipeWireIOPort::Memory {
    Memory(pw_mempool* pool, const spa_data& data)
        : samples(static_cast<float*>(data.data)), byteSize(data.data ? data.maxsize : 0), chunk(data.chunk)
    {
        pw_memblock* const block = pw_mempool_find_ptr(pool, chunk);
        if (block) // finds the existing mapping, and counts this use of it
            map = pw_memblock_map(block, PW_MEMMAP_FLAG_READWRITE, 0, block->size, nullptr);
    }
    ~Memory()
    {
        if (map)
            pw_memmap_free(map);
    }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    float* const samples;
    const size_t byteSize;
    spa_chunk* const chunk;
    pw_memmap* map = nullptr;
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
        _memory, [](const auto& each) { return each->map && each->map->block->id == SPA_ID_INVALID; });
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
    memory->chunk->offset = 0;
    memory->chunk->stride = sizeof(float);
    memory->chunk->size = fits ? static_cast<uint32_t>(byteCount) : 0;
    return fits ? memory->samples : nullptr;
}

float* PipeWireIOPort::_inputSamples(const pw_buffer& buffer, size_t byteCount) noexcept
{
    const spa_data& data = buffer.buffer->datas[0];
    if (!data.data || data.chunk->offset > data.maxsize || byteCount > data.maxsize - data.chunk->offset ||
        byteCount > data.chunk->size)
        return nullptr;
    return reinterpret_cast<float*>(static_cast<std::byte*>(data.data) + data.chunk->offset);
}
