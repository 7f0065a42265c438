#include "DxrCommand.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <sndfile.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

DxrCommand::DxrCommand()
{
    std::string pattern = std::filesystem::temp_directory_path() / "dxr-tool-XXXXXX";
    folder = mkdtemp(pattern.data());
    setenv("PIPEWIRE_REMOTE", "/nowhere", 1);
}

DxrCommand::~DxrCommand()
{
    std::filesystem::remove_all(folder);
}

std::string DxrCommand::file(const std::string& name, const std::string& content) const
{
    std::ofstream(folder / name, std::ios::binary) << content;
    return folder / name;
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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

std::vector<float> samplesOf(const std::string& path, int& channels)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file || info.format != (SF_FORMAT_WAVEX | SF_FORMAT_FLOAT)) {
        sf_close(file);
        return {};
    }
    channels = info.channels;
    std::vector<float> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

std::string wave(uint32_t declaredBytes, size_t heldBytes)
{
    const auto word = [](uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    return "RIFF" + word(36 + declaredBytes) + "WAVEfmt " + word(16) + word(0x00010003) + word(48000) +
           word(192000) + word(0x00200004) + "data" + word(declaredBytes) + std::string(heldBytes, '\0');
}

ToolResult DxrCommand::pipeline(const std::string& command) const
{
    std::ofstream(folder / "script") << "cd " << folder << "; d() { " DXR_TOOL " \"$@\" --simulated; }; { "
                                     << command << "; } 2> errors";
    FILE* const pipe = popen(("bash -o pipefail " + (folder / "script").string()).c_str(), "r");
    std::array<char, 4096> block{};
    ToolResult result{};
    while (const size_t count = std::fread(block.data(), 1, block.size(), pipe))
        result.output.append(block.data(), count);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.errors = contentOf(folder / "errors");
    return result;
}
