#pragma once

#include "AudioHardwareTypes.h"
#include "CXPlist.h"

#include <optional>
#include <string>
#include <vector>

/// What an aggregate device was asked to be made of; AudioHardwareCreateAggregateDevice says what it may
/// hold.
/// Threads: immutable, any.
struct AggregateDescription { // NOLINT(bugprone-exception-escape): moving a property list throws nothing
    struct SubDevice {
        std::string uid;
        bool isCompensated = true; ///< when its clock is another than the aggregate's
    };

    /// Nothing when `dictionary` is not as it must be.
    static std::optional<AggregateDescription> of(const CXPlist& dictionary);

    std::string uid;
    std::string name;
    std::vector<SubDevice> subDevices; ///< each UID once
    std::optional<size_t> clock;       ///< the place of the clock device among them
    CXPlist dictionary;                ///< as it was given
};
