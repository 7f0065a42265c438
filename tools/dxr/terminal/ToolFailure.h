#pragma once

#include <stdexcept>
#include <string>

/// Ends the command with one printable line for the user and `exitStatus`.
class ToolFailure : public std::runtime_error {
public:
    explicit ToolFailure(const std::string& line) : std::runtime_error(line) {}

    static constexpr int exitStatus = 1;
    static constexpr int usageExitStatus = 2; ///< of a wrong command line
};
