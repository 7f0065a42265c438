#include "CXMainBundle.h"

#include <mutex>

namespace {

struct MainBundle {
    std::mutex mutex;
    std::optional<std::string> identifier;
};

MainBundle& mainBundle()
{
    static auto& bundle = *new MainBundle; // never destroyed: threads use it while the process exits
    return bundle;
}

} // namespace

void CXSetMainBundleIdentifier(const std::optional<std::string>& identifier)
{
    MainBundle& bundle = mainBundle();
    const std::lock_guard lock(bundle.mutex);
    bundle.identifier = identifier && identifier->empty() ? std::nullopt : identifier;
}

std::optional<std::string> CXMainBundleIdentifier()
{
    MainBundle& bundle = mainBundle();
    const std::lock_guard lock(bundle.mutex);
    return bundle.identifier;
}
