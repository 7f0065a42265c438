#pragma once

#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

using nlohmann::json;

/// Tests the `dxr` command without a server, in a private folder.
class DxrCommand : public testing::Test {
protected:
    DxrCommand();
    ~DxrCommand() override
    {
        std::filesystem::current_path("/"); // a test may have entered the folder
        std::filesystem::remove_all(folder);
    }

    std::string path(const std::string& name) const { return folder / name; }
    std::string file(const std::string& name, const std::string& content) const;
    /// Runs a shell command in the folder; `d` is dxr on the simulated computer.
    ToolResult pipeline(const std::string& command) const;

    /// A shell command, its exit status, and a part of its output.
    struct Row {
        const char* why;
        std::string command;
        int status;
        const char* printed;
    };
    void expectRows(const std::vector<Row>& rows) const;

    std::filesystem::path folder;
};

std::vector<std::string> linesOf(const std::string& text);
std::string contentOf(const std::string& path);
void expectContains(const std::string& text, const std::string& part);
/// Whether the text contains a control character.
bool hasControls(const std::string& text);
/// A WAV file of one channel with `heldBytes` of samples, whose header declares `declaredBytes`.
std::string wave(uint32_t declaredBytes, size_t heldBytes);
