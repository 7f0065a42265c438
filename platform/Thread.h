#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace dxr {

/// A named thread. The name is cut to at most 15 bytes (the kernel's limit) without splitting a character.
/// The thread blocks all signals; the application's threads handle them.
/// Threads: start and join from one thread at a time. The destructor joins; on the thread itself it detaches.
class Thread {
public:
    Thread() noexcept = default;
    /// Starts `body`. Throws std::system_error if no thread can be created.
    Thread(const std::string& name, std::function<void()> body);
    Thread(Thread&&) noexcept = default;
    Thread& operator=(Thread&& other) noexcept;
    ~Thread();

    /// Sets the calling thread's name; cut in the same way.
    static void setCurrentName(std::string_view name);

    bool isCurrent() const noexcept { return _thread.get_id() == std::this_thread::get_id(); }
    /// Waits until the body has returned; on the thread itself, detaches instead.
    void join();
    /// Lets the thread run independently of this object.
    void detach();

private:
    std::thread _thread;
};

} // namespace dxr
