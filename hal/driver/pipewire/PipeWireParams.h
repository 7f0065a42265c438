#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

struct spa_pod;
struct spa_param_info;

/// The parameters of one object on the server, of the kinds that its owner wants, kept up to date. After each
/// change that the server reports, the whole list is requested again; the new list replaces the old one when
/// it is complete. (With existing servers, a subscription to several kinds at once loses some.)
/// Threads: the loop's.
class PipeWireParams {
public:
    /// The kinds: SPA_PARAM_….
    explicit PipeWireParams(std::initializer_list<uint32_t> wanted);
    ~PipeWireParams();

    /// Calls `ask` for every kind whose list the server reports as changed. Returns whether there was one; if
    /// so, call commit() once the server has replied to all requests.
    bool follow(std::span<const spa_param_info> now, const std::function<void(uint32_t kind)>& ask);
    /// Stores one parameter of a reply, the `index`-th of its list.
    void take(uint32_t kind, uint32_t index, const spa_pod* param);
    void commit();

    /// The parameters of the last complete list; valid until the next commit().
    std::vector<const spa_pod*> list(uint32_t kind) const;
    /// The first parameter of list(); null if the list is empty.
    const spa_pod* first(uint32_t kind) const;

private:
    using Bytes = std::vector<uint64_t>; // parameters are aligned to 8 bytes
    struct List {
        uint32_t kind;
        uint32_t flags = 0;
        bool isKnown = false;
        bool isFresh = true; // whether `arriving` belongs to the last request
        std::vector<Bytes> arriving{};
        std::vector<Bytes> complete{};
    };

    const List* _find(uint32_t kind) const;

    std::vector<List> _lists;
};
