#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace dxr {

/// A named thread. The name is cut to the whole characters that fit into the kernel's 15 bytes. Signals stay
/// with the application's threads.
/// Threads: start and join from one thread at a time. Destroying it joins; from itself, it detaches.
class Thread {
public:
    Thread() noexcept = default;
    /// Starts `body`. Throws std::system_error when no thread can be created.
    Thread(const std::string& name, std::function<void()> body);
    Thread(Thread&&) noexcept = default;
    Thread& operator=(Thread&& other) noexcept;
    ~Thread();

    /// Names the calling thread; cut in the same way.
    static void setCurrentName(std::string_view name);

    bool isCurrent() const noexcept { return _thread.get_id() == std::this_thread::get_id(); }
    /// Waits until the body has ended; called on the thread itself, lets it go instead.
    void join();
    /// Lets the thread run on by itself.
    void detach();

private:
    std::thread _thread;
};

} // namespace dxr
