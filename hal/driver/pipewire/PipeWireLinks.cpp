#include "PipeWireLinks.h"

#include <algorithm>
#include <pipewire/link.h>
#include <pipewire/pipewire.h>

namespace {

constexpr size_t mostAtOnce = 32;

} // namespace

class PipeWireLinks::Link {
public:
    Link(PipeWireLinks& owner, const Ends& ends)
        : _owner(owner),
          _proxy(owner._session.create("link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK,
                                       {{PW_KEY_LINK_OUTPUT_PORT, std::to_string(ends.first)},
                                        {PW_KEY_LINK_INPUT_PORT, std::to_string(ends.second)}}))
    {
        static const pw_link_events linkEvents{PW_VERSION_LINK_EVENTS, _info};
        static const pw_proxy_events proxyEvents = [] {
            pw_proxy_events events{};
            events.version = PW_VERSION_PROXY_EVENTS;
            events.removed = [](void* self) { static_cast<Link*>(self)->_settle(); };
            events.error = [](void* self, int, int, const char*) { static_cast<Link*>(self)->_settle(); };
            return events;
        }();
        if (!_proxy)
            return;
        pw_proxy_add_object_listener(_proxy, &_linkListener, &linkEvents, this);
        pw_proxy_add_listener(_proxy, &_proxyListener, &proxyEvents, this);
    }
    ~Link()
    {
        if (!_proxy)
            return;
        spa_hook_remove(&_linkListener);
        spa_hook_remove(&_proxyListener);
        pw_proxy_destroy(_proxy);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

private:
    static void _info(void* self, const pw_link_info* info)
    {
        if (info->state >= PW_LINK_STATE_PAUSED || info->state <= PW_LINK_STATE_UNLINKED)
            static_cast<Link*>(self)->_settle();
    }
    void _settle()
    {
        if (!std::exchange(_isSettled, true))
            _owner._settled();
    }

    PipeWireLinks& _owner;
    pw_proxy* const _proxy;
    spa_hook _linkListener{};
    spa_hook _proxyListener{};
    bool _isSettled = false;
};

PipeWireLinks::PipeWireLinks(PipeWireSession& session) : _session(session) {}

PipeWireLinks::~PipeWireLinks() = default;

void PipeWireLinks::make(std::vector<Ends> all)
{
    _waiting = std::move(all);
    std::ranges::reverse(_waiting);
    _makeNext();
}

void PipeWireLinks::_makeNext()
{
    const size_t count = std::min(mostAtOnce, _waiting.size());
    if (!_links.empty())
        _session.waitForAudioThread(); // what the last lot has queued for it
    _unsettled = count;                // before the first: none settles while it is being made
    for (size_t i = 0; i < count; ++i) {
        _links.push_back(std::make_unique<Link>(*this, _waiting.back()));
        _waiting.pop_back();
    }
}

void PipeWireLinks::_settled()
{
    if (--_unsettled == 0)
        _makeNext();
}
