#pragma once

#include "ContentOf.h"
#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <sstream>
#include <sys/wait.h>

using nlohmann::json;

inline constexpr const char* controls = "\x1B\x07\x08\x7F\r\t"; ///< what a name must not send to a terminal

inline void expectContains(const std::string& text, const std::string& part)
{
    EXPECT_NE(text.find(part), std::string::npos) << part << "\nis not in\n" << text;
}

inline std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// Tests the `dxr` command without a server, in a private folder.
class DxrCommand : public testing::Test {
protected:
    DxrCommand()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "dxr-tool-XXXXXX";
        folder = mkdtemp(pattern.data());
        setenv("PIPEWIRE_REMOTE", "/nowhere", 1);
    }
    ~DxrCommand() override { std::filesystem::remove_all(folder); }

    std::string path(const std::string& name) const { return folder / name; }
    /// Runs a shell command in the folder; `d` is dxr on the simulated computer.
    ToolResult run(const std::string& command) const
    {
        // Background jobs that still wait at a FIFO end with the script.
        std::ofstream(folder / "script")
            << "unset COLUMNS; trap 'kill $(jobs -p) 2> /dev/null' EXIT; cd " << folder.string()
            << "; dxr() { " DXR_TOOL " \"$@\"; }; d() { " DXR_TOOL " \"$@\" --simulated; }; { " << command
            << "; } > output 2> errors";
        const int status = std::system(("bash -o pipefail " + path("script")).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(path("output")),
                withoutSchedulingNotices(contentOf(path("errors")))};
    }
    /// The same where files cannot grow beyond a size, as on a full disk.
    ToolResult runOnDisk(size_t byteSize, const std::string& command) const
    {
        return run("trap '' XFSZ; prlimit --pid $$ --fsize=" + std::to_string(byteSize) + "; " + command);
    }

    /// A shell command, its exit status, and a part of its output.
    struct Row {
        const char* why;
        std::string command;
        int status;
        const char* printed;
    };
    void expectRows(const std::vector<Row>& rows) const
    {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.why);
            const ToolResult result = run(row.command);
            EXPECT_EQ(result.status, row.status) << result.output << result.errors;
            expectContains(result.output, row.printed);
        }
    }

    std::filesystem::path folder;
};
