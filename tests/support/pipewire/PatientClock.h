#pragma once

#include "TestClient.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <spa/node/io.h>
#include <spa/node/node.h>
#include <thread>

/// Drives the nodes of a group, and begins a cycle only when all of them are done with the one before: no node is ever late,
/// however busy the machine is, and time stretches instead. Cycles are lost only by skip().
/// Threads: one; it runs one of its own, and cycles end on the client's audio thread.
class PatientClock {
public:
    static constexpr const char* group = "test.patient"; ///< node.group of the devices that it drives

    explicit PatientClock(const std::string& remote);
    ~PatientClock();
    PatientClock(const PatientClock&) = delete;
    PatientClock& operator=(const PatientClock&) = delete;

    /// The clock goes on by so many cycles that no node is called for, before its next.
    void skip(uint32_t cycles) noexcept { _skip += cycles; }

private:
    static int _addListener(void* self, spa_hook* listener, const spa_node_events* events, void* data);
    static int _setCallbacks(void* self, const spa_node_callbacks* callbacks, void* data);
    static int _setIO(void* self, uint32_t id, void* area, size_t size);
    static int _sendCommand(void* self, const spa_command* command);
    static int _process(void* self);
    static int _sync(void* self, int sequence);
    void _run();
    void _runCycle(uint64_t nanoseconds);
    void _waitForNodes(std::unique_lock<std::mutex>& lock);

    TestClient _client;
    spa_node _node{};
    spa_hook_list _hooks{};
    spa_node_info _info{};
    spa_callbacks _callbacks{};
    pw_proxy* _exported = nullptr;

    std::mutex _mutex; // guards what follows, and the cycle that is begun
    std::condition_variable _changed;
    spa_io_clock* _clock = nullptr;
    spa_io_position* _position = nullptr;
    bool _isRunning = false, _isEnded = false;
    uint32_t _pendingEnds = 0; // of cycles that were begun

    std::atomic<uint32_t> _skip{0}; // cycles; taken by the thread before its next
    std::thread _thread;
};
