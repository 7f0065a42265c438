#pragma once

#include "PipeWireLoop.h"
#include "PipeWireProperties.h"
#include "PipeWireSocketWatch.h"
#include "PipeWireTimer.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

struct pw_context;
struct pw_core;
struct pw_registry;
struct pw_proxy;

/// Who hears from a session. Called on the loop's thread.
class PipeWireSessionClient {
public:
    virtual void sessionConnected() = 0;
    /// Everything of the server is about to go: proxies, filters and listeners on them are to be destroyed
    /// now.
    virtual void sessionDisconnected() = 0;
    /// An attempt found no server, or could not be made.
    virtual void sessionFoundNoServer() = 0;
    virtual void globalAppeared(uint32_t id, const char* type, const PipeWireProperties& properties) = 0;
    virtual void globalDisappeared(uint32_t id) = 0;

protected:
    ~PipeWireSessionClient() = default;
};

/// The connection to the server: it connects as soon as there is one, reports the server's objects, and
/// connects anew whenever the connection is lost. It never waits for the server: one that hangs is simply
/// silent.
///
///   Ended ------ connect() --------> (try)
///   (try) ------ connected --------> Connected
///   (try) ------ no connection ----> Waiting
///   Connected -- connection error -> Broken
///   Broken ----- the loop's turn --> Waiting: the error comes from inside what is then torn down
///   Waiting ---- timer, sockets ---> (try)
///   any -------- disconnect() -----> Ended
///
/// While it waits, it tries at once when the sockets change. While a socket exists, and while changes cannot
/// be reported, it also tries by a timer, after 5 ms at first and then up to a second: a server binds its
/// socket a moment before it listens, and a stale socket looks like that of a server that is starting. The
/// delay begins anew with a change of the sockets or a connection that lasted a second, so that a server that
/// is found and lost over and over costs one attempt a second.
/// Threads: the loop's.
class PipeWireSession {
public:
    /// `remote` is a remote name or the path of a socket; nothing means the user's own server.
    PipeWireSession(PipeWireLoop& loop, PipeWireSessionClient& client, std::optional<std::string> remote);
    ~PipeWireSession();
    PipeWireSession(const PipeWireSession&) = delete;
    PipeWireSession& operator=(const PipeWireSession&) = delete;

    void connect();
    /// Ends the connection and all attempts, and reports it to the client.
    void disconnect();
    bool isConnected() const noexcept { return _core != nullptr; }
    /// Calls `done` once the server has handled everything sent before; never, when the connection ends
    /// first. `owner` is who must still be there then, and forgets it otherwise.
    void sync(const void* owner, PipeWireLoop::Work done);
    /// Calls nothing of this owner's any more.
    void forget(const void* owner);

    /// An own view of an object of the server; null without a connection.
    pw_proxy* bind(uint32_t id, const char* type, uint32_t version, size_t userDataSize = 0);
    /// Null without a connection.
    pw_proxy* create(const char* factory, const char* type, uint32_t version,
                     const PipeWireProperties& properties);
    /// Returns once the audio thread has done what PipeWire has queued for it: a queue of some 400 places,
    /// which loses what comes when it is full.
    void waitForAudioThread();
    pw_core* core() const noexcept { return _core; }
    PipeWireLoop& loop() const noexcept { return _loop; }

private:
    struct Listeners;
    struct Sync {
        const void* owner;
        PipeWireLoop::Work done;
    };

    enum class State { Ended, Waiting, Connected, Broken };

    void _try();
    void _wait();
    void _turn();
    void _socketsChanged();
    bool _makeContext();
    bool _makeConnection();
    void _endConnection();

    static void _coreDone(void* data, uint32_t id, int sequence);
    static void _coreError(void* data, uint32_t id, int sequence, int result, const char* message);
    static void _global(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                        const struct spa_dict* properties);
    static void _globalRemove(void* data, uint32_t id);

    PipeWireLoop& _loop;
    PipeWireSessionClient& _client;
    const std::optional<std::string> _remote;
    const std::unique_ptr<Listeners> _listeners;
    pw_context* _context = nullptr;
    pw_core* _core = nullptr;
    pw_registry* _registry = nullptr;
    std::unordered_map<int, Sync> _syncs; // by the number the server gives back

    State _state = State::Ended;
    PipeWireSocketWatch _watch;
    PipeWireTimer _timer; // while Waiting, or Broken
    std::chrono::milliseconds _retryDelay;
    PipeWireLoop::Clock::time_point _connectedSince;
    bool _hasReported = false; // a context that cannot be made, once
};
