// Lists the audio devices, then plays a tone for a second on the default output.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <dxr/LogSink.h>
#include <dxr/QDL.h>
#include <unistd.h>

int main()
{
    uint32_t count = 0;
    AudioObjectID* devices = QDLAudioDeviceIDList(&count);
    for (uint32_t i = 0; i < count; ++i) {
        const std::string name = QDLAudioDeviceNameFromDeviceID(devices[i]).value_or("?");
        std::printf("%u  %s\n", devices[i], platform::printableText(name).c_str());
    }
    std::free(devices);

    const AudioObjectID output = QDLAudioDeviceDefaultOutputDeviceID();
    const double step = 2.0 * M_PI * 440.0 / QDLAudioDeviceSampleRate(output, false);
    const AudioDeviceIOBlock tone = [step, phase = 0.0](auto*, auto*, auto*, AudioBufferList* out,
                                                        auto*) mutable {
        AudioBuffer& buffer = out->buffers[0]; // its channels lie side by side
        auto* samples = static_cast<float*>(buffer.data);
        for (uint32_t i = 0; i < buffer.dataByteSize / sizeof(float);
             i += buffer.numberChannels, phase += step)
            samples[i] = samples[i + buffer.numberChannels - 1] = static_cast<float>(0.2 * std::sin(phase));
    };
    AudioDeviceIOProcID callback = nullptr;
    if (AudioDeviceCreateIOProcIDWithBlock(&callback, output, nullptr, tone) != 0) {
        std::puts("No output device.");
        return 1;
    }
    AudioDeviceStart(output, callback);
    sleep(1);
    AudioDeviceDestroyIOProcID(output, callback);
}
