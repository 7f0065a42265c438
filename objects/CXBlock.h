#pragma once

#include "CXRef.h"

#include <concepts>
#include <functional>
#include <type_traits>
#include <utility>

template <class Signature> class CXBlock;

/// Returns true if `callable` has an empty state (a pointer, or a class that converts to bool) and is empty.
template <class Callable> constexpr bool CXIsEmptyCallable(const Callable& callable) noexcept
{
    if constexpr (std::is_pointer_v<Callable> || std::is_member_pointer_v<Callable>)
        return callable == nullptr;
    else if constexpr (std::is_class_v<Callable> && std::is_constructible_v<bool, const Callable&>)
        return !static_cast<bool>(callable);
    else
        return false;
}

/// A reference-counted callable with identity: copies share the callable and `==` compares its identity, so
/// that a registered block can be looked up again. An empty block converts to false and must not be called. A
/// block made from an empty callable (a null function pointer, an empty std::function) is empty.
/// Threads:   copies may be made on any thread; whether the callable may run on several threads is up to it.
/// Real time: calling and copying; creating a block allocates.
template <class Result, class... Arguments> class CXBlock<Result(Arguments...)> {
public:
    CXBlock() noexcept = default;
    CXBlock(std::nullptr_t) noexcept {}
    template <class Callable>
    requires(!std::same_as<std::remove_cvref_t<Callable>, CXBlock> &&
             std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
        CXBlock(Callable&& callable)
    {
        if (!CXIsEmptyCallable(callable))
            _body = CXRef<Body>::adopt(new Bound<std::decay_t<Callable>>(std::forward<Callable>(callable)));
    }

    Result operator()(Arguments... arguments) const
    {
        return _body->invoke(std::forward<Arguments>(arguments)...);
    }
    explicit operator bool() const noexcept { return bool(_body); }
    friend bool operator==(const CXBlock& a, const CXBlock& b) noexcept = default;

private:
    class Body : public CXObject {
    public:
        virtual Result invoke(Arguments... arguments) = 0;
    };
    template <class Callable> class Bound final : public Body {
    public:
        template <class From> explicit Bound(From&& from) : _callable(std::forward<From>(from)) {}
        Result invoke(Arguments... arguments) override
        {
            if constexpr (std::is_void_v<Result>)
                std::invoke(_callable, std::forward<Arguments>(arguments)...);
            else
                return std::invoke(_callable, std::forward<Arguments>(arguments)...);
        }

    private:
        Callable _callable;
    };

    CXRef<Body> _body;
};
