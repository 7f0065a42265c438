#include "DemoScript.h"

#include "SimulatedZoo.h"

DemoScript::DemoScript(CXRef<SimulatedBackend> backend, double seconds) : _backend(std::move(backend))
{
    const auto alter = [this](const char* uid, const CXBlock<void(SimulatedDeviceBuilder&)>& change) {
        return [this, uid, change] { _backend->reconfigure(uid, change); };
    };
    const std::function<void()> acts[] = {
        [this] { _backend->plug(SimulatedZoo::headphones()); },
        [this] { _backend->setDefault(HALDirection::Output, "zoo-headphones"); },
        alter("zoo-usb-mic", [](SimulatedDeviceBuilder& device) { device.name("Interview Microphone"); }),
        alter("zoo-headphones",
              [](SimulatedDeviceBuilder& device) { device.volume(HALDirection::Output, 0.35F); }),
        [this] { _backend->unplug("zoo-surround"); },
        alter("zoo-speakers",
              [](SimulatedDeviceBuilder& device) { device.currentSource(HALDirection::Output, 2); }),
        [this] {
            _backend->plug(aDevice()
                               .uid("zoo-interface")
                               .name("Studio Interface 8×8")
                               .manufacturer("Simulated")
                               .transport(kAudioDeviceTransportTypeUSB)
                               .inputs(8)
                               .outputs(8)
                               .sampleRates({44100.0, 48000.0, 96000.0}));
        },
        alter("zoo-interface", [](SimulatedDeviceBuilder& device) { device.sampleRate(96000.0); }),
        [this] { _backend->unplug("zoo-headphones"); },
        alter("zoo-usb-mic", [](SimulatedDeviceBuilder& device) { device.mute(HALDirection::Input, true); }),
        [this] { _backend->unplug("zoo-usb-mic"); },
    };
    const double step = seconds / static_cast<double>(std::size(acts) + 1);
    for (size_t i = 0; i < std::size(acts); ++i)
        _deeds.push_back({step * static_cast<double>(i + 1), acts[i]});
}

size_t DemoScript::doWhatIsDue(double seconds)
{
    const size_t before = _done;
    for (; _done < _deeds.size() && _deeds[_done].seconds <= seconds; ++_done)
        _deeds[_done].act();
    return _done - before;
}
