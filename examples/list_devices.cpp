// Lists the audio devices, one line for each direction of a device.
#include <algorithm>
#include <cstdio>
#include <dxr/dxr.h>
#include <vector>

int main()
{
    const DXRDeviceManager::Devices connected = DXRDeviceManager::sharedDeviceManager().connectedDevices();
    std::vector<CXRef<DXRDevice>> devices(connected.begin(), connected.end());
    std::ranges::sort(devices, {}, [](const CXRef<DXRDevice>& device) {
        return std::pair(device->displayName(), device->isInput());
    });
    for (const CXRef<DXRDevice>& device : devices) {
        // Devices choose their names freely: only the printable form is safe on a terminal.
        const std::string name = dxr::printableText(device->displayName());
        std::printf("%-6s  %3u ch  %8.0f Hz  %s%s\n", device->isInput() ? "input" : "output",
                    device->channelCount(), device->sampleRate(), name.c_str(),
                    device->isDefault() ? "  (default)" : "");
    }
    if (devices.empty())
        std::puts("No audio devices.");
}
