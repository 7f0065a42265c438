#include "PipeWireLinks.h"

#include <algorithm>
#include <pipewire/link.h>
#include <pipewire/pipewire.h>

namespace {

constexpr size_t batchSize = 32;

} // namespace

class PipeWireLinks::Link {
public:
    Link(PipeWireLinks& owner, const Ends& ends)
        : _owner(owner), _ends(ends),
          _proxy(owner._session.create("link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK,
                                       {{PW_KEY_LINK_OUTPUT_PORT, std::to_string(ends.first)},
                                        {PW_KEY_LINK_INPUT_PORT, std::to_string(ends.second)}}))
    {
        static const pw_link_events linkEvents{PW_VERSION_LINK_EVENTS, _info};
        static const pw_proxy_events proxyEvents = [] {
            pw_proxy_events events{};
            events.version = PW_VERSION_PROXY_EVENTS;
            events.removed = [](void* self) { static_cast<Link*>(self)->_fail(); };
            events.error = [](void* self, int, int, const char*) { static_cast<Link*>(self)->_fail(); };
            return events;
        }();
        if (!_proxy) { // no connection, or no memory
            _isSettled = _hasFailed = true;
            return;
        }
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

    const Ends& ends() const noexcept { return _ends; }
    /// Whether the link has been established or has failed.
    bool isSettled() const noexcept { return _isSettled; }
    bool isActive() const noexcept { return _isActive; }
    /// A link that is no longer active counts as broken: after its node was suspended and resumed, it may
    /// stay paused, and silent, forever.
    bool isBroken() const noexcept { return _hasFailed || (_wasActive && !_isActive); }

private:
    static void _info(void* data, const pw_link_info* info)
    {
        auto* self = static_cast<Link*>(data);
        if (info->state <= PW_LINK_STATE_UNLINKED)
            return self->_fail();
        self->_isActive = info->state == PW_LINK_STATE_ACTIVE;
        self->_wasActive = self->_wasActive || self->_isActive;
        self->_owner._wake.signal();
        if (info->state >= PW_LINK_STATE_PAUSED)
            self->_settle();
    }
    void _fail()
    {
        _hasFailed = true;
        _isActive = false;
        _owner._wake.signal();
        _settle();
    }
    void _settle()
    {
        if (!std::exchange(_isSettled, true))
            _owner._settled();
    }

    PipeWireLinks& _owner;
    const Ends _ends;
    pw_proxy* const _proxy;
    spa_hook _linkListener{};
    spa_hook _proxyListener{};
    bool _isSettled = false;
    bool _hasFailed = false;
    bool _isActive = false;
    bool _wasActive = false;
};

PipeWireLinks::PipeWireLinks(PipeWireSession& session, const PipeWireWake& wake, std::vector<Ends> ends)
    : _session(session), _wake(wake), _waiting(std::move(ends))
{
    std::ranges::reverse(_waiting);
    _makeNext();
}

PipeWireLinks::~PipeWireLinks() = default;

bool PipeWireLinks::isBroken() const
{
    return std::ranges::any_of(_links, [](const auto& link) { return link->isBroken(); });
}

bool PipeWireLinks::isActive() const
{
    return std::ranges::any_of(_links, [](const auto& link) { return link->isActive(); });
}

bool PipeWireLinks::hasStarted() const
{
    const auto active = std::ranges::count_if(_links, [](const auto& link) { return link->isActive(); });
    return !isBroken() && static_cast<size_t>(active) >= std::min(batchSize, _links.size());
}

void PipeWireLinks::mend()
{
    std::erase_if(_links, [this](const std::unique_ptr<Link>& link) {
        const bool isBroken = link->isBroken();
        if (isBroken)
            _waiting.push_back(link->ends());
        return isBroken;
    });
    if (_unsettledCount == 0)
        _makeNext();
}

void PipeWireLinks::_makeNext()
{
    const size_t count = std::min(batchSize, _waiting.size());
    if (!_links.empty())
        _session.waitForAudioThread(); // to execute the work that the last batch has queued
    for (size_t i = 0; i < count; ++i) {
        const auto& link = _links.emplace_back(std::make_unique<Link>(*this, _waiting.back()));
        _unsettledCount += link->isSettled() ? 0 : 1;
        _waiting.pop_back();
    }
}

void PipeWireLinks::_settled()
{
    if (--_unsettledCount == 0)
        _makeNext();
}
