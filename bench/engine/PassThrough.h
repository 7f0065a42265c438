#pragma once

#include "PrivateServer.h"
#include "TestClient.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A candidate that copies channel 1 of an input device to channel 2 of an output device, or of the same
/// device, on a private server. It runs until it is destroyed.
class PassThrough {
public:
    PassThrough() = default;
    virtual ~PassThrough() = default;
    PassThrough(const PassThrough&) = delete;
    PassThrough& operator=(const PassThrough&) = delete;

    struct Usage {
        uint64_t cycles;
        uint64_t nanoseconds; ///< CPU time of the audio thread
        uint64_t wakeUps;     ///< how often the audio thread waited
    };
    /// The totals since it started.
    virtual Usage usage() const = 0;
};

/// The devices, and the cycles on them.
struct Passage {
    PrivateServer& server;
    TestClient& client;
    std::string source, sink; ///< node names; the same for one device
    uint32_t frameCount;      ///< per cycle
    double rate;              ///< Hz
};

struct PassThroughMaker {
    const char* name;
    std::function<std::unique_ptr<PassThrough>(const Passage&)> make;
    bool needsOneDevice; ///< whether source and sink must be the same
};

/// The engine first.
std::vector<PassThroughMaker> passThroughMakers();
