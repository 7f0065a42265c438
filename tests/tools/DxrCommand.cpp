#include "DxrCommand.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <sys/wait.h>

DxrCommand::DxrCommand()
{
    std::string pattern = std::filesystem::temp_directory_path() / "dxr-tool-XXXXXX";
    folder = mkdtemp(pattern.data());
    setenv("PIPEWIRE_REMOTE", "/nowhere", 1);
}

std::string DxrCommand::file(const std::string& name, const std::string& content) const
{
    std::ofstream(folder / name, std::ios::binary) << content;
    return folder / name;
}

ToolResult DxrCommand::pipeline(const std::string& command) const
{
    // Background jobs that still wait at a FIFO end with the script.
    file("script", "trap 'kill $(jobs -p) 2> /dev/null' EXIT; cd " + folder.string() +
                       "; d() { " DXR_TOOL " \"$@\" --simulated; }; { " + command + "; } > output 2> errors");
    const int status = std::system(("bash -o pipefail " + (folder / "script").string()).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(folder / "output"),
            contentOf(folder / "errors")};
}

void DxrCommand::expectRows(const std::vector<Row>& rows) const
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.why);
        const ToolResult result = pipeline(row.command);
        EXPECT_EQ(result.status, row.status) << result.output << result.errors;
        expectContains(result.output, row.printed);
    }
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void expectContains(const std::string& text, const std::string& part)
{
    EXPECT_NE(text.find(part), std::string::npos) << part << "\nis not in\n" << text;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

bool hasControls(const std::string& text)
{
    return std::ranges::any_of(
        text, [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7F; });
}

std::string wave(uint32_t declaredBytes, size_t heldBytes)
{
    const auto word = [](uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    return "RIFF" + word(36 + declaredBytes) + "WAVEfmt " + word(16) + word(0x00010003) + word(48000) +
           word(192000) + word(0x00200004) + "data" + word(declaredBytes) + std::string(heldBytes, '\0');
}
