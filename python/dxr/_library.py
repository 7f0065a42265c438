"""Loads the C library, reads its header, and converts its errors to exceptions."""

from __future__ import annotations

import atexit
import os
import queue
import re
import threading
import time
import weakref
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import cffi

ffi = cffi.FFI()


def _declarations() -> str:
    """The declarations in <dxr/c.h>, in the form that cffi reads."""
    header = (Path(__file__).parent / "c.h").read_text(encoding="utf-8")
    header = re.sub(r"#ifdef __cplusplus.*?#endif", "", header, flags=re.DOTALL)
    header = re.sub(r"^#.*$", "", header, flags=re.MULTILINE)
    return header.replace("DXR_C_API ", "")


ffi.cdef(_declarations())
lib: Any = ffi.dlopen(os.environ.get("DXR_LIBRARY", "libdxr.so.0.1"))


class Error(Exception):
    """An error of the library, with the library's text. `status` is its number."""

    status = 0


class ArgumentError(Error, ValueError):
    """An invalid argument."""


class NotFoundError(Error, LookupError):
    """No such device."""


class StateError(Error):
    """Not possible now: running, already added, not connected."""


class RefusedError(Error):
    """Refused by the hardware."""


_CLASSES = {
    lib.DXR_ERROR_ARGUMENT: ArgumentError,
    lib.DXR_ERROR_TEXT: ArgumentError,
    lib.DXR_ERROR_NOT_FOUND: NotFoundError,
    lib.DXR_ERROR_STATE: StateError,
    lib.DXR_ERROR_REFUSED: RefusedError,
}


def check(status: int) -> None:
    """Raises the error of the last call unless `status` is DXR_OK."""
    if status == lib.DXR_OK:
        return
    error = _CLASSES.get(status, Error)(ffi.string(lib.dxr_error_text()).decode())
    error.status = status
    if _has_ended:
        _stop_daemon_thread()
    raise error


def result(function: Callable[..., int], *arguments: Any) -> Any:
    """Calls a function whose last argument points to its result, and returns the result."""
    kind = ffi.typeof(function).args[-1].item
    place = ffi.new(ffi.getctype(kind, "*"))
    check(function(*arguments, place))
    return place[0]


def encoded(text: str | os.PathLike[str] | bytes, name: str) -> bytes:
    if isinstance(text, str):
        text = text.encode("utf-8", "surrogateescape")  # the library refuses text that is not UTF-8
    if not isinstance(text, bytes):
        raise TypeError(f"{name} is to be text, not {type(text).__name__}")
    if b"\0" in text:
        raise ArgumentError(f"{name} has a null character")
    return text


def decoded(text: Any) -> str:
    return ffi.string(text).decode()


def taken(memory: Any) -> str:
    """The text in memory returned by the library, which is freed."""
    try:
        return decoded(memory)
    finally:
        lib.dxr_free(memory)


in_callback = threading.local()
_calls: list[object] = []  # calls pending or in progress, on any thread, that begin or end callbacks
_has_ended = False


@contextmanager
def callbacks_change(begins: bool) -> Iterator[None]:
    """Encloses a call that begins or ends callbacks: the interpreter waits for it before it exits, and calls
    that begin callbacks fail afterwards."""
    call = object()
    _calls.append(call)
    try:
        if not (begins and _has_ended):
            yield
            return
    finally:
        _calls.remove(call)
    _stop_daemon_thread()
    raise StateError("the interpreter is ending")


def _stop_daemon_thread() -> None:
    # The interpreter ends daemon threads while they wait. It would abort the process if one of them were printing an
    # exception at that moment.
    while threading.current_thread().daemon and not getattr(in_callback, "depth", 0):
        time.sleep(1.0)


_unreleased: queue.SimpleQueue[tuple[Any, Any, object]] = queue.SimpleQueue()
_releasing_starts = threading.Lock()


def _release_pending() -> None:
    while True:
        handle, kept, call = _unreleased.get()
        lib.dxr_release(handle)
        _calls.remove(call)
        del kept  # not at the next release


_releasing = threading.Thread(target=_release_pending, name="dxr.release", daemon=True)


def allow_release_in_callbacks() -> None:
    """To be called before a callback can run that calls release()."""
    with _releasing_starts:
        if not _releasing.is_alive():
            _releasing.start()


def release(handle: Any, kept: Any = None) -> None:
    """Releases a handle, or does nothing if it was released; `kept` is kept alive until its callbacks have
    returned. An audio callback cannot wait for them: what is released there, or collected as garbage, is
    released shortly after by a thread."""
    if getattr(in_callback, "depth", 0):
        call = object()
        _calls.append(call)
        _unreleased.put((handle, kept, call))
        return
    with callbacks_change(begins=False):
        lib.dxr_release(handle)


def owned(owner: Any, handle: Any, kept: Any = None) -> Any:
    """Releases `handle` with its owner, or before the interpreter exits: no callback is called after that."""
    weakref.finalize(owner, release, handle, kept)
    return handle


def _begin_end() -> None:
    global _has_ended
    _has_ended = True


def _end() -> None:
    """Waits until no callback can run or begin: one that ran after the interpreter's exit would crash the
    process."""
    deadline = time.monotonic() + 10.0
    while _calls and time.monotonic() < deadline:
        time.sleep(0.001)


os.register_at_fork(after_in_child=_calls.clear)  # other threads' calls exist only in the parent
weakref.finalize(ffi, _end)  # finalizers run in reverse order: this one runs last, after those of owned()
atexit.register(_begin_end)  # runs before all finalizers
