#pragma once

#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

/// The `dxr` command without a server, in a folder of its own.
class DxrCommand : public testing::Test {
protected:
    DxrCommand();
    ~DxrCommand() override;

    std::string file(const std::string& name, const std::string& content = {}) const;
    std::string path(const std::string& name) const { return folder / name; }
    /// Runs a shell's command in the folder, where `d` is dxr on the simulated computer.
    ToolResult pipeline(const std::string& command) const;

    std::filesystem::path folder;
};

std::vector<std::string> linesOf(const std::string& text);
std::string contentOf(const std::string& path);
/// Whether there is a character in it that drives a terminal.
bool hasControls(const std::string& text);
/// The samples of a 32-bit float WAV file, and its channels; nothing when it is none.
std::vector<float> samplesOf(const std::string& path, int& channels);
/// A WAV file of one channel whose header declares so many bytes of samples.
std::string wave(uint32_t declaredBytes, size_t heldBytes);
