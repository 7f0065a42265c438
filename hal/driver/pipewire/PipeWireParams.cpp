#include "PipeWireParams.h"

#include <algorithm>
#include <cstring>
#include <spa/param/param.h>
#include <spa/pod/pod.h>

PipeWireParams::PipeWireParams(std::initializer_list<uint32_t> wanted)
{
    for (const uint32_t kind : wanted)
        _lists.push_back({kind});
}

PipeWireParams::~PipeWireParams() = default;

bool PipeWireParams::follow(std::span<const spa_param_info> now,
                            const std::function<void(uint32_t kind)>& ask)
{
    bool asked = false;
    for (const spa_param_info& info : now) {
        const auto list = std::ranges::find(_lists, info.id, &List::kind);
        // A bit in the flags toggles with every change of the values.
        if (list == _lists.end() || (list->isKnown && list->flags == info.flags))
            continue;
        list->isKnown = true;
        list->flags = info.flags;
        list->isFresh = false;
        asked = true;
        if ((info.flags & SPA_PARAM_INFO_READ) != 0)
            ask(info.id);
    }
    return asked;
}

void PipeWireParams::take(uint32_t kind, uint32_t index, const spa_pod* param)
{
    const auto list = std::ranges::find(_lists, kind, &List::kind);
    if (list == _lists.end() || !param)
        return;
    if (!list->isFresh || index == 0)
        list->arriving.clear();
    list->isFresh = true;
    Bytes& bytes = list->arriving.emplace_back((SPA_POD_SIZE(param) + 7) / 8);
    std::memcpy(bytes.data(), param, SPA_POD_SIZE(param));
}

void PipeWireParams::commit()
{
    for (List& list : _lists) {
        if (!list.isFresh)
            list.arriving.clear(); // the server replied with no parameters
        list.isFresh = true;
        list.complete = list.arriving;
    }
}

const PipeWireParams::List* PipeWireParams::_find(uint32_t kind) const
{
    const auto list = std::ranges::find(_lists, kind, &List::kind);
    return list == _lists.end() ? nullptr : &*list;
}

std::vector<const spa_pod*> PipeWireParams::list(uint32_t kind) const
{
    std::vector<const spa_pod*> all;
    if (const List* list = _find(kind))
        for (const Bytes& bytes : list->complete)
            all.push_back(reinterpret_cast<const spa_pod*>(bytes.data()));
    return all;
}

const spa_pod* PipeWireParams::first(uint32_t kind) const
{
    const List* list = _find(kind);
    return list && !list->complete.empty() ? reinterpret_cast<const spa_pod*>(list->complete.front().data())
                                           : nullptr;
}
