#include "FakedKernel.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace {

using Guard = FakedKernel::Guard;

std::string controlFile(int number)
{
    return kernel().folder + "/controlC" + std::to_string(number);
}

/// Opens and closes a card's file: programs that watch the folder notice it.
void useFile(const std::string& path)
{
    FakedLibrary::close(FakedLibrary::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0660));
}

} // namespace

FakedKernel& kernel()
{
    static auto* const only = [] {
        char name[] = "/tmp/faked-cards-XXXXXX";
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(kernel().folder, ignored);
        });
        auto* const made = new FakedKernel{.folder = mkdtemp(name)}; // programs use it to the end
        // For programs that do not plug cards: one whose clock does not wait for them.
        if (std::getenv("DXR_FAKED_CARD"))
            made->cards[0] = std::make_shared<FakedCard>(0, FakedCardOptions{.isElastic = false});
        return made;
    }();
    return *only;
}

void FakedKernel::announce(const FakedCard& card, unsigned number, unsigned mask)
{
    for (auto& [descriptor, control] : controls) {
        if (control.card.get() != &card)
            continue;
        control.changes.emplace_back(number, mask);
        FakedLibrary::setFull(descriptor, true);
    }
}

void FakedKernel::unplug(FakedCard& card)
{
    if (std::exchange(card.isGone, true))
        return;
    for (FakedPcm* pcm : card.pcms)
        pcm->setState(SNDRV_PCM_STATE_DISCONNECTED);
    for (const auto& [descriptor, control] : controls)
        if (control.card.get() == &card)
            FakedLibrary::setFull(descriptor, true);
    unlink(controlFile(card.number).c_str());
}

// ---- The test's side

int FakedCards::plug(const FakedCardOptions& options)
{
    const Guard guard(kernel().lock);
    int number = 0;
    while (kernel().cards.contains(number) && !kernel().cards[number]->isGone)
        ++number;
    kernel().cards[number] = std::make_shared<FakedCard>(number, options);
    useFile(controlFile(number));
    return number;
}

void FakedCards::unplug(int number)
{
    const Guard guard(kernel().lock);
    kernel().unplug(*kernel().cards.at(number));
}

void FakedCards::unplugAll()
{
    for (size_t number = 0; number < kernel().cards.size(); ++number)
        unplug(static_cast<int>(number));
}

bool FakedCards::isPlugged(int number)
{
    const Guard guard(kernel().lock);
    return !kernel().cards.at(number)->isGone;
}

void FakedCards::set(int number, FakedFault fault, bool isThere)
{
    const Guard guard(kernel().lock);
    FakedCard& card = *kernel().cards.at(number);
    card.setFault(fault, isThere);
    const bool isStop = isThere && (fault == FakedFault::Overload || fault == FakedFault::Suspend);
    for (FakedPcm* pcm : card.pcms)
        if (isStop && pcm->runs())
            pcm->setState(fault == FakedFault::Overload ? SNDRV_PCM_STATE_XRUN : SNDRV_PCM_STATE_SUSPENDED);
    if (fault == FakedFault::Busy)
        useFile(kernel().folder + "/pcmC" + std::to_string(number) + "D0p");
    if (fault == FakedFault::NoRights)
        utimensat(AT_FDCWD, controlFile(number).c_str(), nullptr, 0); // as udev changes its attributes
}

void FakedCards::provideCapture(int number)
{
    const Guard guard(kernel().lock);
    kernel().cards.at(number)->options.captureError = 0;
    useFile(kernel().folder + "/pcmC" + std::to_string(number) + "D0c");
}

void FakedCards::setControl(int number, unsigned control, long left, long right)
{
    const Guard guard(kernel().lock);
    FakedCard& card = *kernel().cards.at(number);
    card.controls.at(control - 1).value = {left, right};
    kernel().announce(card, control);
}

void FakedCards::announce(int number, unsigned control, unsigned mask)
{
    const Guard guard(kernel().lock);
    kernel().announce(*kernel().cards.at(number), control, mask);
}

long FakedCards::control(int number, unsigned control, unsigned index)
{
    const Guard guard(kernel().lock);
    return kernel().cards.at(number)->controls.at(control - 1).value.at(index);
}

size_t FakedCards::controlOpens(int number)
{
    const Guard guard(kernel().lock);
    return kernel().cards.at(number)->controlOpens;
}

void FakedCards::hurry(int factor)
{
    kernel().haste = factor;
}

size_t FakedCards::openFiles(int number)
{
    const Guard guard(kernel().lock);
    const auto& card = kernel().cards.at(number);
    const auto isCards = [&](const auto& control) { return control.second.card == card; };
    return card->pcms.size() + static_cast<size_t>(std::ranges::count_if(kernel().controls, isCards));
}
