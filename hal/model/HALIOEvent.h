#pragma once

#include "AudioHardwareTypes.h"

#include <atomic>

/// An object and address whose change an IO thread can announce without a lock, through
/// HALNotifier::postFromIOThread(). Owned by the IO that announces it.
class HALIOEvent final : public CXObject {
public:
    AudioObjectID objectID = kAudioObjectUnknown; // set before IO starts
    AudioObjectPropertyAddress address{};

private:
    friend class HALNotifier;
    // True from the post until the notification thread has taken the event. Only the thread that changed it
    // to true may push the event, so an event is on the list at most once and `_next` has one writer.
    std::atomic<bool> _posted{false};
    HALIOEvent* _next = nullptr;
};
