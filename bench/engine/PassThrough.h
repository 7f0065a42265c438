#pragma once

#include "PrivateServer.h"
#include "TestClient.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What passes frames from one device to another, or to the same, on a private server: channel 1 of the input to
/// channel 2 of the output. It runs as long as it lives.
class PassThrough {
public:
    PassThrough() = default;
    virtual ~PassThrough() = default;
    PassThrough(const PassThrough&) = delete;
    PassThrough& operator=(const PassThrough&) = delete;

    struct Usage {
        uint64_t cycles;
        uint64_t nanoseconds; ///< of CPU time on the audio thread
        uint64_t wakeUps;     ///< of the audio thread: how often it waited
    };
    /// Since it started.
    virtual Usage usage() const = 0;
};

/// Where frames pass, and how.
struct Passage {
    PrivateServer& server;
    TestClient& client;
    std::string source, sink; ///< node names; the same for one device
    uint32_t frameCount;      ///< of a cycle
    double rate;              ///< Hz
};

struct PassThroughMaker {
    const char* name;
    std::function<std::unique_ptr<PassThrough>(const Passage&)> make;
    bool needsOneDevice; ///< whether source and sink must be the same
};

/// The engine first.
std::vector<PassThroughMaker> passThroughMakers();
