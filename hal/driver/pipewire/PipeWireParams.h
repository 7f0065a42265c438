#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

struct spa_pod;
struct spa_param_info;

/// The parameters of one object on the server, as many kinds of them as its owner wants, kept up to date:
/// each change that the server reports makes it ask for the whole list again, and the new list replaces the
/// old one when it is complete. (Subscribing to several kinds at once loses some with the servers there are.)
/// Threads: the loop's.
class PipeWireParams {
public:
    /// The kinds: SPA_PARAM_….
    explicit PipeWireParams(std::initializer_list<uint32_t> wanted);
    ~PipeWireParams();

    /// Calls `ask` for every kind whose list the server reports as new. Returns whether there was one; the
    /// caller then commits once the server has replied to everything.
    bool follow(std::span<const spa_param_info> now, const std::function<void(uint32_t kind)>& ask);
    /// Takes one parameter of a reply, the `index`-th of its list.
    void take(uint32_t kind, uint32_t index, const spa_pod* param);
    void commit();

    /// The parameters of the last complete list; valid until the next commit.
    std::vector<const spa_pod*> list(uint32_t kind) const;
    /// The only or first one; null when there is none.
    const spa_pod* first(uint32_t kind) const;

private:
    using Bytes = std::vector<uint64_t>; // a parameter is aligned to 8
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
