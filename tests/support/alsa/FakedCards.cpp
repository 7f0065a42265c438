#include "FakedCards.h"

#include "FakedKernel.h"

int FakedCards::plug(const FakedCardOptions& options)
{
    return FakedKernel::shared().plug(options);
}

void FakedCards::unplug(int card)
{
    FakedKernel::shared().unplug(card);
}

void FakedCards::rename(int card, const std::string& name)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.options.name = name; });
    FakedKernel::shared().touch(card);
}

void FakedCards::overload(int card)
{
    FakedKernel::shared().setState(card, SNDRV_PCM_STATE_XRUN);
}

void FakedCards::pause(int card)
{
    FakedKernel::shared().setState(card, SNDRV_PCM_STATE_PAUSED);
}

void FakedCards::interruptWaits(int card)
{
    FakedKernel::shared().with(card, [](FakedCard& each) { return each.interruptedWaits = 3; });
}

void FakedCards::setPartsPerMillion(int card, double partsPerMillion)
{
    FakedKernel::shared().with(card,
                               [&](FakedCard& each) { return each.setPartsPerMillion(partsPerMillion), 0; });
}

void FakedCards::setSuspended(int card, bool isSuspended)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.isSuspended = isSuspended; });
    if (isSuspended)
        FakedKernel::shared().setState(card, SNDRV_PCM_STATE_SUSPENDED);
}

void FakedCards::setStuck(int card, bool isStuck)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.setStuck(isStuck), 0; });
}

void FakedCards::setBusy(int card, bool isBusy)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.isBusy = isBusy; });
    FakedKernel::shared().use(card);
}

void FakedCards::setRights(int card, bool mayOpen)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.mayOpen = mayOpen; });
    FakedKernel::shared().touch(card);
}

void FakedCards::setControl(int card, unsigned number, long left, long right)
{
    FakedKernel::shared().setControl(card, number, left, right);
}

long FakedCards::control(int card, unsigned number, unsigned index)
{
    return FakedKernel::shared().with(
        card, [&](FakedCard& each) { return each.controls.at(number - 1).value.at(index); });
}

bool FakedCards::isOpen(int card)
{
    return FakedKernel::shared().isOpen(card);
}

uint64_t FakedCards::ioctlCount()
{
    return FakedKernel::shared().ioctlCount;
}

const std::string& FakedCards::folder()
{
    return FakedKernel::shared().folder;
}
