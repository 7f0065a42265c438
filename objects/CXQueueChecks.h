#pragma once

// Annotations that declare which queue owns which data. With clang's thread-safety analysis, an access to a
// field or a call of a private method from outside its queue does not compile. Other compilers ignore the
// annotations.
#if defined(__clang__)
#define CX_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define CX_THREAD_SAFETY(attribute)
#endif

/// On a class: CX_ON_QUEUE and CX_OWNED_BY_QUEUE may name its objects.
#define CX_QUEUE_CAPABILITY CX_THREAD_SAFETY(capability("queue"))
/// On a method: it may be called only by work that runs on `queue`.
#define CX_ON_QUEUE(queue) CX_THREAD_SAFETY(requires_capability(queue))
/// On a field: it may be accessed only by work that runs on `queue`.
#define CX_OWNED_BY_QUEUE(queue) CX_THREAD_SAFETY(guarded_by(queue))
/// On a method of the queue's class: after calling it, the caller is treated as work that runs on the queue.
#define CX_ASSERTS_QUEUE CX_THREAD_SAFETY(assert_capability(this))
/// On a method: turns the analysis off. The method's comment explains why its accesses are safe.
#define CX_UNCHECKED_QUEUE CX_THREAD_SAFETY(no_thread_safety_analysis)
