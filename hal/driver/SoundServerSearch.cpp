#include "SoundServerSearch.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Process names as in /proc/PID/comm, which the kernel cuts to 15 characters.
constexpr std::array<std::string_view, 6> serverNames{"pipewire",   "wireplumber", "pipewire-media-",
                                                      "pulseaudio", "jackd",       "jackdbus"};

bool isSet(const char* variable)
{
    const char* const value = std::getenv(variable);
    return value && *value;
}

} // namespace

SoundServerSearch::SoundServerSearch(fs::path processes, fs::path run, fs::path cards)
    : _processes(std::move(processes)), _run(std::move(run)), _cards(std::move(cards))
{}

bool SoundServerSearch::hasCards() const
{
    std::error_code unreadable;
    for (const fs::directory_entry& file : fs::directory_iterator(_cards, unreadable))
        if (file.path().filename().string().starts_with("controlC"))
            return true;
    return false;
}

bool SoundServerSearch::isServerExpected() const
{
    return isSet("PIPEWIRE_REMOTE") || isSet("PULSE_SERVER") || _hasSocket() || _hasProcess();
}

bool SoundServerSearch::_hasSocket() const
{
    std::vector<fs::path> folders{_run / "user" / std::to_string(getuid()), _run};
    for (const char* variable : {"PIPEWIRE_RUNTIME_DIR", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH"})
        if (isSet(variable))
            folders.emplace_back(std::getenv(variable));
    std::error_code unreadable;
    return std::ranges::any_of(folders, [&](const fs::path& folder) {
        return std::ranges::any_of(
            std::array{"pipewire-0", "pipewire/pipewire-0", "pulse/native", "native"},
            [&](const char* socket) { return fs::exists(folder / socket, unreadable); });
    });
}

bool SoundServerSearch::_hasProcess() const
{
    std::error_code unreadable;
    for (const fs::directory_entry& process : fs::directory_iterator(_processes, unreadable)) {
        std::ifstream file(process.path() / "comm");
        std::string name;
        if (std::getline(file, name) && std::ranges::find(serverNames, name) != serverNames.end())
            return true;
    }
    return false;
}
