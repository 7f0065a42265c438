#include "HALDefaultDriver.h"
#include "HALModel.h"
#include "LogSink.h"

#include <mutex>

namespace {

// Never destroyed, because threads of the hardware run until the process exits.
struct Active {
    std::mutex mutex;
    CXRef<HALModel> model;
};

Active& active()
{
    static auto* made = new Active;
    return *made;
}

} // namespace

bool HALSetHardwareDriver(const CXRef<HALHardwareDriver>& driver)
{
    const std::scoped_lock lock(active().mutex);
    if (!driver || active().model)
        return false;
    try {
        active().model = HALModel::initWithDriver(driver);
    } catch (const std::exception& error) { // cannot create a thread
        dxr::LogSink::log(std::string("Audio hardware: ") + error.what());
    }
    return bool(active().model);
}

std::string HALHardwareUnavailableReason()
try {
    HALHardwareDriver& driver = halActiveModel()->driver();
    driver.waitUntilEnumerated();
    return driver.unavailableReason();
} catch (const std::exception& error) { // cannot create a thread
    return std::string("cannot use the audio hardware: ") + error.what();
}

bool HALHardwareIsOnHostClock()
{
    return halActiveModel()->driver().isOnHostClock();
}

const CXRef<HALModel>& halActiveModel()
{
    static const CXRef<HALModel>& model = []() -> const CXRef<HALModel>& {
        const std::scoped_lock lock(active().mutex);
        if (!active().model)
            active().model = HALModel::initWithDriver(halMakeDefaultDriver());
        return active().model;
    }();
    return model;
}
