#pragma once

#include "AudioHardwareTypes.h"
#include "CXPlist.h"

#include <optional>
#include <string>
#include <vector>

/// The parsed description of an aggregate device; AudioHardwareCreateAggregateDevice documents its entries.
/// Threads: immutable, any.
struct AggregateDescription { // NOLINT(bugprone-exception-escape): moving a property list throws nothing
    struct SubDevice {
        std::string uid;
        bool isCompensated = true; ///< whether it is resampled if its clock differs from the aggregate's
    };

    /// Parses `dictionary`; returns nothing if it is invalid.
    static std::optional<AggregateDescription> of(const CXPlist& dictionary);

    std::string uid;
    std::string name;
    std::vector<SubDevice> subDevices; ///< each UID once
    std::optional<size_t> clock;       ///< the place of the clock device in subDevices
    CXPlist dictionary;                ///< as passed by the client
};
