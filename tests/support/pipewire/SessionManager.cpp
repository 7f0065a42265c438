#include "SessionManager.h"

#include "PrivateProcess.h"

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

constexpr const char* installed = "/usr/share/wireplumber";

// Without a session bus, what needs one (Bluetooth, reserving cards) makes WirePlumber exit.
constexpr const char* withoutHardware = R"(
default_access.properties["enable-flatpak-portal"] = false
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
)";

void copyConfiguration(const fs::path& to)
{
    fs::copy(installed, to, fs::copy_options::recursive);
    std::ofstream(to / "main.lua.d" / "80-headless.lua") << withoutHardware;
    std::ifstream original(to / "wireplumber.conf");
    std::ostringstream kept;
    for (std::string line; std::getline(original, line);)
        if (line.find("bluetooth.lua") == std::string::npos)
            kept << line << '\n';
    original.close();
    std::ofstream(to / "wireplumber.conf") << kept.str();
}

} // namespace

SessionManager::SessionManager(const PrivateServer& server)
{
    if (!fs::exists(installed))
        throw std::runtime_error("WirePlumber is not installed");
    const fs::path configuration = server.folder() / "wireplumber";
    if (!fs::exists(configuration))
        copyConfiguration(configuration);
    _process = startPrivateProcess({"wireplumber"}, server.folder(),
                                   {"WIREPLUMBER_CONFIG_DIR=" + configuration.string(),
                                    "WIREPLUMBER_DATA_DIR=" + std::string(installed)});
}

SessionManager::~SessionManager()
{
    endPrivateProcess(_process, SIGTERM);
}
