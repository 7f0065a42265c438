#include "DemoScript.h"

DemoScript::DemoScript(DemoStage& stage, double seconds) : _stage(stage)
{
    using enum DemoStage::Device;
    constexpr double whole = 18.0;
    constexpr Step steps[] = {
        {4.0, Headphones, false}, {6.5, Headphones, true},   {10.0, Microphone, false},
        {10.0, Monitors, false},  {10.0, Headphones, false}, {12.0, Monitors, true},
        {13.0, Headphones, true}, {14.0, Microphone, true},
    };
    for (Step step : steps) {
        step.seconds *= seconds / whole;
        _steps.push_back(step);
    }
}

std::optional<DemoScript::Step> DemoScript::doNext(double seconds)
{
    if (_done == _steps.size() || _steps[_done].seconds > seconds)
        return std::nullopt;
    const Step step = _steps[_done++];
    if (step.isPlug) {
        _stage.plug(step.device);
    } else {
        _stage.unplug(step.device);
        if (step.device == DemoStage::Headphones)
            _stage.changePort(); // they come back in another one
    }
    return step;
}
