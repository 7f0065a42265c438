#include "PrivateServer.h"

#include "FolderWatch.h"
#include "PrivateProcess.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

std::filesystem::path newFolder()
{
    std::string path = std::filesystem::temp_directory_path() / "dxr-pipewire-XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("no folder for a private server");
    return path;
}

// A forced frame count is taken as it is, and a rate of any client is allowed. The access module must be there:
// without it clients get no permissions at all.
constexpr const char* configuration = R"(
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.*       = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-rt  args = { nice.level = -11 rt.prio = 88 }  flags = [ ifexists nofail ] }
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-spa-node-factory }
    { name = libpipewire-module-spa-device-factory }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-client-device }
    { name = libpipewire-module-access }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-link-factory }
    { name = libpipewire-module-session-manager }
]
)";

constexpr const char* drivers = R"(
    { factory = spa-node-factory
      args = { factory.name = support.node.driver  node.name = Dummy-Driver
               node.group = pipewire.dummy  priority.driver = 20000 } }
    { factory = spa-node-factory
      args = { factory.name = support.node.driver  node.name = Freewheel-Driver
               priority.driver = 19000  node.group = pipewire.freewheel  node.freewheel = true } }
)";

} // namespace

PrivateServer::PrivateServer(const Options& options, bool startNow)
    : _ownsFolder(options.runtimeFolder.empty()),
      _folder(_ownsFolder ? newFolder() : std::filesystem::path(options.runtimeFolder))
{
    _writeConfiguration(options);
    if (startNow)
        start();
}

PrivateServer::~PrivateServer()
{
    kill();
    std::error_code ignored;
    if (_ownsFolder)
        std::filesystem::remove_all(_folder, ignored);
}

void PrivateServer::_writeConfiguration(const Options& options) const
{
    std::string modules = configuration;
    if (!options.withoutModule.empty()) {
        const size_t name = modules.find("libpipewire-module-" + options.withoutModule + " ");
        modules.erase(modules.rfind('{', name), modules.find('}', name) + 1 - modules.rfind('{', name));
    }
    std::filesystem::create_directories(_folder);
    std::ofstream file(_folder / "server.conf");
    file << "context.properties = {\n"
            "    core.daemon = true\n    core.name = pipewire-0\n    support.dbus = false\n"
            "    link.max-buffers = 16\n    log.level = 1\n"
         << "    default.clock.rate = " << options.rate
         << "\n    default.clock.allowed-rates = [ 44100 48000 88200 96000 176400 192000 ]\n"
         << "    default.clock.quantum = " << options.frameCount
         << "\n    default.clock.min-quantum = 16\n    default.clock.max-quantum = 8192\n"
            "    settings.check-quantum = false\n    settings.check-rate = false\n"
            "    clock.power-of-two-quantum = false\n}\n"
         << modules << "context.objects = [\n"
         << (options.metadata ? "    { factory = metadata args = { metadata.name = default } }\n" : "")
         << drivers << "]\n";
}

void PrivateServer::start()
{
    if (_process != 0)
        return;
    FolderWatch watch(_folder);
    _process = startPrivateProcess({"pipewire", "-c", _folder / "server.conf"}, _folder);
    // The socket is bound before the server listens on it; the lock file beside it is older. Accepting is told by
    // a connection that succeeds.
    if (!watch.waitUntil([this] { return acceptsConnections(remote()); }))
        throw std::runtime_error("the private server did not come up");
}

void PrivateServer::stop()
{
    _end(SIGTERM);
}

void PrivateServer::kill()
{
    _end(SIGKILL);
}

void PrivateServer::hang()
{
    ::kill(_process, SIGSTOP);
}

void PrivateServer::resume()
{
    ::kill(_process, SIGCONT);
}

void PrivateServer::_end(int signal)
{
    if (_process == 0)
        return;
    endPrivateProcess(_process, signal);
    _process = 0;
}
