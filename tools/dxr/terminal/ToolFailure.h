#pragma once

#include <stdexcept>
#include <string>

/// What a command could not do, as one line for the user; ends the tool with `exitStatus`.
/// The text is printable: names of devices and files have been made so.
class ToolFailure : public std::runtime_error {
public:
    explicit ToolFailure(const std::string& line) : std::runtime_error(line) {}

    static constexpr int exitStatus = 1;
    /// For a command line that makes no sense.
    static constexpr int usageExitStatus = 2;
};
