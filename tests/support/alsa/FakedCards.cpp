#include "FakedCards.h"

#include "FakedKernel.h"
#include "FakedLibrary.h"

#include <algorithm>
#include <sys/stat.h>

namespace {

using Guard = FakedKernel::Guard;

FakedKernel& kernel()
{
    return FakedKernel::shared();
}

std::string controlFile(int number)
{
    return kernel().folder + "/controlC" + std::to_string(number);
}

/// Opens and closes the card's file: programs that watch the folder notice it.
void useFile(int number)
{
    FakedLibrary::close(
        FakedLibrary::open(controlFile(number).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0660));
}

/// Changes the attributes of the card's file, as udev does.
void touchFile(int number)
{
    utimensat(AT_FDCWD, controlFile(number).c_str(), nullptr, 0);
}

} // namespace

int FakedCards::plug(const FakedCardOptions& options)
{
    const Guard guard(kernel().lock);
    int number = 0;
    while (kernel().cards.contains(number) && !kernel().cards[number]->isGone)
        ++number;
    kernel().cards[number] = std::make_shared<FakedCard>(number, options);
    useFile(number);
    return number;
}

void FakedCards::unplug(int number)
{
    const Guard guard(kernel().lock);
    const std::shared_ptr<FakedCard>& card = kernel().cards.at(number);
    if (std::exchange(card->isGone, true))
        return;
    for (FakedPcm* pcm : card->pcms)
        pcm->setState(SNDRV_PCM_STATE_DISCONNECTED);
    for (const auto& [descriptor, control] : kernel().controls)
        if (control.card == card)
            FakedLibrary::setFull(descriptor, true);
    unlink(controlFile(number).c_str());
}

void FakedCards::unplugAll()
{
    for (size_t number = 0; number < kernel().cards.size(); ++number)
        unplug(static_cast<int>(number));
}

void FakedCards::rename(int number, const std::string& name)
{
    const Guard guard(kernel().lock);
    kernel().cards.at(number)->options.name = name;
    touchFile(number);
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
        useFile(number);
    if (fault == FakedFault::NoRights)
        touchFile(number);
}

void FakedCards::setControl(int number, unsigned control, long left, long right)
{
    const Guard guard(kernel().lock);
    FakedCard& card = *kernel().cards.at(number);
    card.controls.at(control - 1).value = {left, right};
    kernel().announce(card, control);
}

long FakedCards::control(int number, unsigned control, unsigned index)
{
    const Guard guard(kernel().lock);
    return kernel().cards.at(number)->controls.at(control - 1).value.at(index);
}

size_t FakedCards::openFiles(int number)
{
    const Guard guard(kernel().lock);
    const auto& card = kernel().cards.at(number);
    const auto isCards = [&](const auto& control) { return control.second.card == card; };
    return card->pcms.size() + static_cast<size_t>(std::ranges::count_if(kernel().controls, isCards));
}
