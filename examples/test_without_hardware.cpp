// How an application tests its own device code without hardware: on a simulated computer, whose clock moves
// only on request, so that failures are reproducible. Exits with status 0 if all checks pass.
#include <cstdio>
#include <dxr/QDL.h>
#include <dxr/simulated.h>

namespace {

int failures = 0;

void expect(bool isTrue, const char* what)
{
    std::printf("%s  %s\n", isTrue ? "ok    " : "FAILED", what);
    failures += isTrue ? 0 : 1;
}

} // namespace

int main()
{
    const CXRef<SimulatedHardware> computer = SimulatedHardware::init(SimulatedClock::Stepped);
    HALSetHardwareDriver(computer);

    const AudioObjectID speakers = computer->plug(aDevice().uid("speakers").name("Speakers").outputs(2));
    const AudioObjectID cable = computer->plug(aDevice().uid("cable").inputs(2).outputs(2).loopsBack());
    expect(QDLAudioDeviceDefaultOutputDeviceID() == speakers, "the first output is the default");
    computer->unplug("speakers");
    expect(QDLAudioDeviceDefaultOutputDeviceID() == cable, "the default moves on when it is unplugged");
    expect(!QDLAudioDeviceUIDFromDeviceID(speakers), "an unplugged device has no UID");

    // The cable loops back: its input receives its output one cycle later.
    float heard = 0.0F;
    AudioDeviceIOProcID callback = nullptr;
    const AudioDeviceIOBlock block = [&heard](const AudioTimeStamp*, const AudioBufferList* in,
                                              const AudioTimeStamp*, AudioBufferList* out,
                                              const AudioTimeStamp*) {
        heard = static_cast<const float*>(in->buffers[0].data)[0];
        static_cast<float*>(out->buffers[0].data)[0] = 0.25F;
    };
    AudioDeviceCreateIOProcIDWithBlock(&callback, cable, nullptr, block);
    AudioDeviceStart(cable, callback);
    computer->stepCycles(1);
    expect(heard == 0.0F, "silence at first");
    computer->stepCycles(1);
    expect(heard == 0.25F, "then what was played");
    AudioDeviceDestroyIOProcID(cable, callback);
    return failures;
}
