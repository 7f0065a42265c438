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

void FakedCards::unplugAll()
{
    FakedKernel::shared().unplugAll();
}

void FakedCards::rename(int card, const std::string& name)
{
    FakedKernel::shared().with(card, [&](FakedCard& each) { return each.options.name = name; });
    FakedKernel::shared().touch(card);
}

void FakedCards::set(int card, FakedFault fault, bool isThere)
{
    FakedKernel& kernel = FakedKernel::shared();
    const int stopped = fault == FakedFault::Overload  ? SNDRV_PCM_STATE_XRUN
                        : fault == FakedFault::Pause   ? SNDRV_PCM_STATE_PAUSED
                        : fault == FakedFault::Suspend ? SNDRV_PCM_STATE_SUSPENDED
                                                       : SNDRV_PCM_STATE_RUNNING;
    kernel.with(card, [&](FakedCard& each) {
        each.setFault(fault, isThere);
        return 0;
    });
    if (isThere && stopped != SNDRV_PCM_STATE_RUNNING)
        kernel.setState(card, stopped);
    if (fault == FakedFault::Busy)
        kernel.use(card);
    if (fault == FakedFault::NoRights)
        kernel.touch(card);
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
