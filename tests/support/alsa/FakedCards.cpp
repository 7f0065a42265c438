#include "FakedCards.h"

#include "FakedKernel.h"
#include "FakedLibrary.h"

#include <algorithm>
#include <sys/stat.h>

namespace {

FakedKernel& kernel()
{
    return FakedKernel::shared();
}

/// Touches the control file, which programs that watch the folder notice; usePcm() closes a PCM file.
void touchControl(int number)
{
    utimensat(AT_FDCWD, (kernel().folder + "/controlC" + std::to_string(number)).c_str(), nullptr, 0);
}

void usePcm(int number)
{
    const std::string file = kernel().folder + "/pcmC" + std::to_string(number) + "D0p";
    FakedLibrary::close(FakedLibrary::open(file.c_str(), O_WRONLY | O_CLOEXEC, 0));
}

} // namespace

int FakedCards::plug(const FakedCardOptions& options)
{
    const FakedKernel::Guard guard(kernel()._lock);
    auto& cards = kernel()._cards;
    int number = 0;
    while (cards.contains(number) && !cards[number]->isGone)
        ++number;
    std::unique_ptr<FakedCard>& place = cards[number];
    if (place)
        kernel()._gone.push_back(std::move(place));
    place = std::make_unique<FakedCard>(number, options);
    kernel()._makeFiles(*place, true);
    return number;
}

void FakedCards::unplug(int number)
{
    const FakedKernel::Guard guard(kernel()._lock);
    FakedCard& card = *kernel()._cards.at(number);
    if (std::exchange(card.isGone, true))
        return;
    for (const auto& [descriptor, pcm] : kernel()._pcms)
        if (&pcm->card == &card)
            pcm->setState(SNDRV_PCM_STATE_DISCONNECTED);
    for (const auto& [descriptor, control] : kernel()._controls)
        if (control.card == &card)
            FakedLibrary::write(control.peer, "", 1);
    kernel()._makeFiles(card, false);
}

void FakedCards::unplugAll()
{
    for (size_t number = 0; number < kernel()._cards.size(); ++number)
        unplug(static_cast<int>(number));
}

void FakedCards::rename(int number, const std::string& name)
{
    {
        const FakedKernel::Guard guard(kernel()._lock);
        kernel()._cards.at(number)->options.name = name;
    }
    touchControl(number);
}

void FakedCards::set(int number, FakedFault fault, bool isThere)
{
    const int stopped = fault == FakedFault::Overload  ? SNDRV_PCM_STATE_XRUN
                        : fault == FakedFault::Pause   ? SNDRV_PCM_STATE_PAUSED
                        : fault == FakedFault::Suspend ? SNDRV_PCM_STATE_SUSPENDED
                                                       : SNDRV_PCM_STATE_RUNNING;
    {
        const FakedKernel::Guard guard(kernel()._lock);
        FakedCard& card = *kernel()._cards.at(number);
        kernel().update(card);
        card.setFault(fault, isThere);
        for (const auto& [descriptor, pcm] : kernel()._pcms)
            if (isThere && stopped != SNDRV_PCM_STATE_RUNNING && &pcm->card == &card && pcm->runs())
                pcm->setState(stopped);
        kernel()._wakeClock();
    }
    if (fault == FakedFault::Busy)
        usePcm(number);
    if (fault == FakedFault::NoRights)
        touchControl(number);
}

void FakedCards::setControl(int number, unsigned control, long left, long right)
{
    const FakedKernel::Guard guard(kernel()._lock);
    FakedCard& card = *kernel()._cards.at(number);
    card.controls.at(control - 1).value = {left, right};
    kernel()._announce(card, control);
}

long FakedCards::control(int number, unsigned control, unsigned index)
{
    const FakedKernel::Guard guard(kernel()._lock);
    return kernel()._cards.at(number)->controls.at(control - 1).value.at(index);
}

bool FakedCards::isOpen(int number)
{
    const FakedKernel::Guard guard(kernel()._lock);
    return std::ranges::any_of(kernel()._pcms, [&](const auto& each) {
        return &each.second->card == kernel()._cards.at(number).get();
    });
}

uint64_t FakedCards::ioctlCount()
{
    return kernel().ioctlCount;
}
