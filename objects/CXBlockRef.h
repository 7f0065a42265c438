#pragma once

#include "CXBlock.h"

#include <memory>
#include <type_traits>
#include <utility>

template <class Signature> class CXBlockRef;

/// A non-owning reference to a callable, for function parameters that are called but not stored. Converts
/// from any callable, including a CXBlock, without a copy. Converts to false if the callable was empty.
/// Threads:   as the callable.
/// Real time: everything.
template <class Result, class... Arguments> class CXBlockRef<Result(Arguments...)> {
public:
    CXBlockRef() noexcept = default;
    CXBlockRef(std::nullptr_t) noexcept {}
    template <class Callable>
    requires(!std::same_as<std::remove_cvref_t<Callable>, CXBlockRef> &&
             std::is_invocable_r_v<Result, Callable&, Arguments...>) CXBlockRef(Callable&& callable)
    noexcept // NOLINT: borrows every kind of callable
    {
        if (CXIsEmptyCallable(callable))
            return;
        using Pointer = std::add_pointer_t<Callable>;
        if constexpr (std::is_function_v<std::remove_reference_t<Callable>>)
            _callable = reinterpret_cast<void*>(std::addressof(callable)); // as POSIX permits
        else
            _callable = const_cast<void*>(static_cast<const void*>(std::addressof(callable)));
        _invoke = [](void* body, Arguments... arguments) -> Result {
            return static_cast<Result>(
                std::invoke(*reinterpret_cast<Pointer>(body), std::forward<Arguments>(arguments)...));
        };
    }

    Result operator()(Arguments... arguments) const
    {
        return _invoke(_callable, std::forward<Arguments>(arguments)...);
    }
    explicit operator bool() const noexcept { return _invoke != nullptr; }

private:
    void* _callable = nullptr;
    Result (*_invoke)(void*, Arguments...) = nullptr;
};
