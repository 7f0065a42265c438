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

/// Callback interface of the session's owner. Called on the loop's thread.
class PipeWireSessionClient {
public:
    virtual void sessionConnected() = 0;
    /// The connection is about to be closed: destroy all proxies, filters and their listeners now.
    virtual void sessionDisconnected() = 0;
    /// An attempt to connect found no server, or could not be made.
    virtual void sessionFoundNoServer() = 0;
    virtual void globalAppeared(uint32_t id, const char* type, const PipeWireProperties& properties) = 0;
    virtual void globalDisappeared(uint32_t id) = 0;

protected:
    ~PipeWireSessionClient() = default;
};

/// The connection to the server. Connects as soon as a server runs, reports the server's objects, and
/// reconnects whenever the connection is lost. Never waits for the server, which may hang.
///
///   Ended ------ connect() --------> (try)
///   (try) ------ connected --------> Connected
///   (try) ------ no connection ----> Waiting
///   Connected -- connection error -> Broken
///   Connected -- no more replies --> Waiting
///   Broken ----- next loop turn ---> Waiting
///   Waiting ---- timer, sockets ---> (try)
///   any -------- disconnect() -----> Ended
///
/// The connection is closed in the loop's turn after its error, because the error is reported from inside the
/// objects that are then destroyed.
///
/// A server that hangs sends nothing, and the connection is kept. But a server may send events and read
/// nothing any more: it waits for the client that owns an object that we have bound, such as the metadata of a
/// session manager, and never ends that (0.3.65) if the client goes instead of replying. So if no sync() is
/// replied to for five seconds after the registry reported an object or a removal, the connection is made
/// anew. The last of the five is timed separately, because this process may have been stopped before it.
///
/// While Waiting, it tries at once when the sockets change. While a socket exists, and while changes cannot
/// be reported, it also tries by a timer, after 5 ms at first and then at intervals of up to a second: a
/// server binds its socket a moment before it listens, and a stale socket looks like that of a server that is
/// starting. The interval is reset when the sockets change and after a connection that lasted a second, so a
/// server that is found and lost over and over costs one attempt a second.
/// Threads: the loop's.
class PipeWireSession {
public:
    /// `remote` is a remote name or the path of a socket; nullopt means the user's own server.
    PipeWireSession(PipeWireLoop& loop, PipeWireSessionClient& client, std::optional<std::string> remote);
    ~PipeWireSession();
    PipeWireSession(const PipeWireSession&) = delete;
    PipeWireSession& operator=(const PipeWireSession&) = delete;

    void connect();
    /// Ends the connection and all attempts to connect. Reports the end of a connection to the client.
    void disconnect();
    bool isConnected() const noexcept { return _core != nullptr; }
    /// Calls `done` once the server has handled everything sent before; never if the connection ends first.
    /// An `owner` that is destroyed earlier must call forget().
    void sync(const void* owner, PipeWireLoop::Work done);
    /// Cancels all pending sync() calls of this owner.
    void forget(const void* owner);

    /// Returns a new proxy for an object of the server; null without a connection.
    pw_proxy* bind(uint32_t id, const char* type, uint32_t version, size_t userDataSize = 0);
    /// Creates an object on the server; null without a connection.
    pw_proxy* create(const char* factory, const char* type, uint32_t version,
                     const PipeWireProperties& properties);
    /// Returns once the audio thread has executed the work that PipeWire has queued for it. The queue has
    /// some 400 entries and drops new work while it is full.
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
    void _noteEvent();

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
    std::unordered_map<int, Sync> _syncs; // by the sequence number of the server's reply

    State _state = State::Ended;
    PipeWireSocketWatch _watch;
    PipeWireTimer _timer;        // runs while Waiting or Broken, and while _waitsForReply
    bool _waitsForReply = false; // an event has come since the last reply, and a reply is due
    bool _waitsAgain = false;    // the reply is late: this is the last wait for it
    std::chrono::milliseconds _retryDelay;
    PipeWireLoop::Clock::time_point _connectedSince;
    bool _hasReported = false; // whether a failure to create the context was logged
};
