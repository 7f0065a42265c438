#include "FakedKernel.h"

#include "FakedLibrary.h"

#include <cstdlib>
#include <filesystem>

void FakedLock::lock() noexcept
{
    timespec pause{0, 20'000};
    for (int tries = 0; _isHeld.exchange(true, std::memory_order_acquire); ++tries)
        if (tries > 100)
            FakedLibrary::poll(nullptr, 0, &pause);
}

FakedKernel& FakedKernel::shared()
{
    static auto* const kernel = [] {
        char name[] = "/tmp/faked-cards-XXXXXX";
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(shared().folder, ignored);
        });
        return new FakedKernel{.folder = mkdtemp(name)}; // never destroyed: programs use it to the end
    }();
    return *kernel;
}

void FakedKernel::announce(const FakedCard& card, unsigned number)
{
    for (auto& [descriptor, control] : controls) {
        if (control.card.get() != &card || !control.isSubscribed)
            continue;
        control.changes.push_back(number);
        FakedLibrary::setFull(descriptor, true);
    }
}
