#include "PrivateServer.h"

#include "Eventually.h"

#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr const char* wirePlumber = "/usr/share/wireplumber";

// Without a session bus, the modules that need one (Bluetooth, reserving cards) make WirePlumber exit.
constexpr const char* withoutHardware = R"(
default_access.properties["enable-flatpak-portal"] = false
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
)";

// A forced frame count is used unchanged, and clients may request any of the rates. The access module is
// required: without it clients have no permissions at all.
constexpr const char* configuration = R"(
context.properties = {
    core.daemon = true
    core.name = pipewire-0
    support.dbus = false
    link.max-buffers = 16
    log.level = 1
    default.clock.allowed-rates = [ 44100 48000 88200 96000 176400 192000 ]
    default.clock.quantum = 512
    default.clock.min-quantum = 16
    default.clock.max-quantum = 8192
    clock.power-of-two-quantum = false
}
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.*       = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-rt  args = { nice.level = -11 rt.prio = 88 }  flags = [ ifexists nofail ] }
)";

constexpr const char* modules[] = {"protocol-native", "metadata",      "spa-node-factory",
                                   "client-node",     "client-device", "access",
                                   "adapter",         "link-factory",  "session-manager"};

constexpr const char* driver = R"(
    { factory = spa-node-factory
      args = { factory.name = support.node.driver  node.name = Dummy-Driver
               node.group = pipewire.dummy  priority.driver = 20000 } }
)";

fs::path newFolder()
{
    std::string path = fs::temp_directory_path() / "dxr-pipewire-XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("no folder for a private server");
    return path;
}

/// The socket exists before the server listens on it: only a successful connection proves that it is ready.
bool acceptsConnections(const std::string& path)
{
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool accepts = connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return accepts;
}

void copyWirePlumberConfiguration(const fs::path& to)
{
    if (!fs::exists(wirePlumber))
        throw std::runtime_error("WirePlumber is not installed");
    fs::copy(wirePlumber, to, fs::copy_options::recursive);
    std::ofstream(to / "main.lua.d" / "80-headless.lua") << withoutHardware;
    std::ofstream(to / "bluetooth.lua.d" / "80-headless.lua") << "bluez_monitor.enabled = false\n";
}

} // namespace

pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables)
{
    const char* path = std::getenv("PATH");
    std::vector<std::string> words{"env", "-i", std::string("PATH=") + (path ? path : "/usr/bin:/bin"),
                                   "HOME=" + folder.string(), "XDG_RUNTIME_DIR=" + folder.string()};
    words.insert(words.end(), variables.begin(), variables.end());
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    const pid_t process = fork();
    if (process < 0)
        throw std::runtime_error("cannot start " + command.front());
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return process;
}

void endPrivateProcess(pid_t process, int signal)
{
    kill(process, signal);
    kill(process, SIGCONT);
    waitpid(process, nullptr, 0);
}

PrivateServer::PrivateServer(Options options) : _options(std::move(options)), _folder(newFolder() / "run")
{
    start();
}

PrivateServer::~PrivateServer()
{
    kill();
    std::error_code ignored;
    fs::remove_all(_folder.parent_path(), ignored);
}

void PrivateServer::_writeConfiguration() const
{
    fs::create_directories(_folder);
    std::ofstream file(_folder / "server.conf");
    file << configuration; // as far as the first module
    for (const char* module : modules)
        if (module != _options.withoutModule)
            file << "    { name = libpipewire-module-" << module << " }\n";
    file << "]\ncontext.objects = [\n"
         << (_options.sessionManager ? "" : "    { factory = metadata args = { metadata.name = default } }\n")
         << driver << "]\n";
}

void PrivateServer::start()
{
    _writeConfiguration();
    _server = startPrivateProcess({"pipewire", "-c", _folder / "server.conf"}, _folder);
    if (!eventually([this] { return acceptsConnections(remote()); }))
        throw std::runtime_error("the private server did not start");
    if (!_options.sessionManager)
        return;
    const fs::path own = _folder / "wireplumber";
    copyWirePlumberConfiguration(own);
    _sessionManager = startPrivateProcess(
        {"wireplumber"}, _folder,
        {"WIREPLUMBER_CONFIG_DIR=" + own.string(), "WIREPLUMBER_DATA_DIR=" + std::string(wirePlumber)});
}

void PrivateServer::kill()
{
    for (pid_t* process : {&_sessionManager, &_server})
        if (*process != 0)
            endPrivateProcess(std::exchange(*process, 0), SIGKILL);
}
