#pragma once

// Which queue owns what, written where the compiler can hold everyone to it: with clang's thread-safety
// analysis an unguarded field or a private call from the wrong place does not build. Elsewhere the marks say
// nothing.
#if defined(__clang__)
#define CX_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define CX_THREAD_SAFETY(attribute)
#endif

/// On a class: its objects can be what CX_ON_QUEUE and CX_OWNED_BY_QUEUE name.
#define CX_QUEUE_CAPABILITY CX_THREAD_SAFETY(capability("queue"))
/// On a method: it runs as work of `queue` only.
#define CX_ON_QUEUE(queue) CX_THREAD_SAFETY(requires_capability(queue))
/// On a field: it is read and written as work of `queue` only.
#define CX_OWNED_BY_QUEUE(queue) CX_THREAD_SAFETY(guarded_by(queue))
/// On a method of the queue's class: from here on the caller counts as its work.
#define CX_ASSERTS_QUEUE CX_THREAD_SAFETY(assert_capability(this))
/// On a method: the analysis does not follow what it does, and its comment says why it is right.
#define CX_UNCHECKED_QUEUE CX_THREAD_SAFETY(no_thread_safety_analysis)
