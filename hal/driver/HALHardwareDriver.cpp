#include "HALHardwareDriver.h"

HALStatus HALHardwareDriver::chooseDefaultDevice(HALDefault /*which*/, HALDeviceDriver& /*device*/,
                                                 HALDeadline /*deadline*/)
{
    return kAudioHardwareIllegalOperationError;
}
