#include "HALDeviceDriver.h"

HALStatus HALDeviceDriver::setNominalSampleRate(double /*rate*/, HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::setBufferFrameSize(uint32_t /*frameCount*/, HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::setVolume(HALDirection /*direction*/, uint32_t /*element*/, float /*scalar*/,
                                     HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::setMuted(HALDirection /*direction*/, bool /*muted*/, HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::setDataSource(HALDirection /*direction*/, uint32_t /*sourceID*/,
                                         HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::setName(const std::string& /*name*/, HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}

HALStatus HALDeviceDriver::startTogether(std::span<const HALGroupMember> /*members*/,
                                         const CXRef<HALIOProcTable>& /*table*/, HALDeadline /*deadline*/,
                                         CXRef<HALGroupIO>& /*group*/)
{
    return kAudioHardwareIllegalOperationError;
}
