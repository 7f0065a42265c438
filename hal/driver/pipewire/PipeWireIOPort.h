#pragma once

#include "CXRealtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

struct pw_buffer;
struct pw_filter;
struct pw_mempool;

/// A port of an IO node, with the buffers that the server has given it.
/// PipeWire (0.3.65) unmaps an output's buffers, and frees their descriptions, without removing them from the
/// port, if another client destroys a link that has just been established. So this class maps the memory of
/// outputs a second time, and its cycles use descriptions of its own.
/// Threads:   the loop's, except samples(). removeBuffer() must not run at the same time as samples(): call
///            close() before, and wait for the end of a cycle that may use the port.
/// Real time: samples().
class PipeWireIOPort {
public:
    /// `pool` is that of the server's connection and outlives this object.
    PipeWireIOPort(pw_mempool* pool, bool isOutput);
    ~PipeWireIOPort();
    PipeWireIOPort(const PipeWireIOPort&) = delete;
    PipeWireIOPort& operator=(const PipeWireIOPort&) = delete;

    /// Adds the port to the node; without memory, it stays without buffers.
    void addTo(pw_filter* filter, const char* name);
    /// The object of a port that PipeWire names by `data` in its events.
    static PipeWireIOPort& of(void* data) { return **static_cast<PipeWireIOPort**>(data); }

    void addBuffer(pw_buffer& buffer);
    void close() noexcept { _isOpen.store(false); }
    void removeBuffer(pw_buffer& buffer);
    /// Whether the server has removed the memory of a buffer that the port still has: what cycles write is
    /// not heard any more.
    bool hasLostMemory() const;

    /// The samples of this cycle; null if there are none, or fewer than `frameCount`.
    float* samples(uint32_t frameCount) noexcept CX_REALTIME;

private:
    struct Memory;

    float* _outputSamples(const pw_buffer& buffer, size_t byteCount) const noexcept CX_REALTIME;
    static float* _inputSamples(const pw_buffer& buffer, size_t byteCount) noexcept CX_REALTIME;

    pw_mempool* const _pool;
    const bool _isOutput;
    void* _port = nullptr; // as PipeWire names it
    std::vector<std::unique_ptr<Memory>> _memory;
    // Set by the loop when the port has buffers. Sequentially consistent: see PipeWireDeviceIO.
    std::atomic<bool> _isOpen{false};
};
