// Prints devices that appear and disappear, in the program's own poll loop, until standard input ends or
// receives a line.
#include <cstdio>
#include <dxr/DXRDeviceManager.h>
#include <dxr/LogSink.h>
#include <dxr/MainQueue.h>
#include <poll.h>
#include <unistd.h>

namespace {

void print(const char* what, const DXRDeviceManager::Devices& devices)
{
    for (const CXRef<DXRDevice>& device : devices)
        std::printf("%-13s%s %s\n", what, device->isInput() ? "input " : "output",
                    dxr::printableText(device->name()).c_str());
    std::fflush(stdout);
}

} // namespace

int main()
{
    // Work for the main thread waits in the main queue, whose descriptor is readable while there is any. In a
    // program with an event loop, such as Qt's or GLib's, add the descriptor to that loop instead.
    dxr::MainQueue& mainQueue = dxr::MainQueue::shared();
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    const DXRDeviceManager::NotifierBlock notifier = [](const DXRDeviceManager::Devices& connected,
                                                        const DXRDeviceManager::Devices& disconnected,
                                                        const DXRDeviceManager::Devices& /*updated*/) {
        print("disconnected", disconnected); // a device that was replugged quickly is in both sets
        print("connected", connected);
    };
    // Register first, then list: this misses no device, and prints a device that appears in between twice.
    manager.addDeviceNotifier(CXRef<dxr::WorkQueue>(&mainQueue), notifier);
    print("present", manager.connectedDevices());

    pollfd waited[] = {{mainQueue.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    do {
        poll(waited, 2, -1);
        mainQueue.drain();
    } while (waited[1].revents == 0);
    manager.removeDeviceNotifier(notifier);
}
