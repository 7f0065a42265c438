#include "Arguments.h"

#include "QDL.h"
#include "Utf8.h"

#include <string_view>

namespace dxr_c {

std::string textOf(const char* text, const char* name)
{
    require(text, name);
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t length = dxr::utf8CharacterLength(rest);
        if (length == 0)
            fail(DXR_ERROR_TEXT, std::string(name) + " is not UTF-8");
        rest.remove_prefix(length);
    }
    return text;
}

HALDirection directionOf(dxr_direction direction)
{
    if (direction != DXR_INPUT && direction != DXR_OUTPUT)
        fail(DXR_ERROR_ARGUMENT, "the direction is neither DXR_INPUT nor DXR_OUTPUT");
    return direction == DXR_INPUT ? HALDirection::Input : HALDirection::Output;
}
bool isInput(dxr_direction direction)
{
    return directionOf(direction) == HALDirection::Input;
}

double requireFraction(double value, const char* name)
{
    if (!(value >= 0.0 && value <= 1.0))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " is not from 0 to 1");
    return value;
}

void requireSampleRate(double rate)
{
    if (!QDLAudioDeviceSampleRateIsValid(rate))
        fail(DXR_ERROR_ARGUMENT, "the sample rate is not from 1000 to 1000000 Hz");
}

} // namespace dxr_c
