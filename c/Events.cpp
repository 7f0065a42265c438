#include "Events.h"

namespace dxr_c {

dxr::SerialQueue& events()
{
    static const auto* const queue =
        new CXRef<dxr::SerialQueue>(dxr::SerialQueue::initWithLabel("dxr.events"));
    return **queue;
}

void waitForEvents()
{
    if (!events().isCurrent())
        events().sync([] {});
}

} // namespace dxr_c
