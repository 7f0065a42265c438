// Says which device is the default output, and again whenever that changes. It is told on the main queue, so that the
// program needs no thread or lock of its own; one with an event loop would poll MainQueue::fd() and call drain().
#include <csignal>
#include <cstdio>
#include <dxr/LogSink.h>
#include <dxr/MainQueue.h>
#include <dxr/QDL.h>

namespace {

void tellDefault()
{
    const AudioObjectID output = QDLAudioDeviceDefaultOutputDeviceID();
    const std::string name = QDLAudioDeviceNameFromDeviceID(output).value_or("none");
    std::printf("Sound goes to: %s\n", platform::printableText(name).c_str());
    std::fflush(stdout);
}

extern "C" void stopMainQueue(int)
{
    platform::MainQueue::shared().stop();
}

} // namespace

int main()
{
    const AudioObjectPropertyAddress defaultOutput{kAudioHardwarePropertyDefaultOutputDevice,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain};
    const CXRef<platform::WorkQueue> queue(&platform::MainQueue::shared());
    const AudioObjectPropertyListenerBlock listener = [](uint32_t, const AudioObjectPropertyAddress*) {
        tellDefault();
    };
    AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject, &defaultOutput, queue, listener);
    std::signal(SIGINT, stopMainQueue);
    tellDefault();
    platform::MainQueue::shared().run();
    AudioObjectRemovePropertyListenerBlock(kAudioObjectSystemObject, &defaultOutput, queue, listener);
}
