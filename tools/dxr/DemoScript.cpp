#include "DemoScript.h"

DemoScript::DemoScript(DemoStage& stage, double seconds) : _stage(stage)
{
    using enum DemoStage::Device;
    constexpr double whole = 18.0;
    constexpr Deed deeds[] = {
        {4.0, Headphones, false}, {6.5, Headphones, true},   {10.0, Microphone, false},
        {10.0, Monitors, false},  {10.0, Headphones, false}, {12.0, Monitors, true},
        {13.0, Headphones, true}, {14.0, Microphone, true},
    };
    for (Deed deed : deeds) {
        deed.seconds *= seconds / whole;
        _deeds.push_back(deed);
    }
}

std::optional<DemoScript::Deed> DemoScript::doNext(double seconds)
{
    if (_done == _deeds.size() || _deeds[_done].seconds > seconds)
        return std::nullopt;
    const Deed deed = _deeds[_done++];
    if (deed.isPlug) {
        _stage.plug(deed.device);
    } else {
        _stage.unplug(deed.device);
        if (deed.device == DemoStage::Headphones)
            _stage.changePort(); // whoever takes them will not remember where they were
    }
    return deed;
}
