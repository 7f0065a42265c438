"""The C library: loaded, its header read, its errors made exceptions."""

from __future__ import annotations

import os
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
    """What <dxr/c.h> declares, as cffi reads it."""
    header = (Path(__file__).parent / "c.h").read_text(encoding="utf-8")
    header = re.sub(r"#ifdef __cplusplus.*?#endif", "", header, flags=re.DOTALL)
    header = re.sub(r"^#.*$", "", header, flags=re.MULTILINE)
    return header.replace("DXR_C_API ", "")


ffi.cdef(_declarations())
lib: Any = ffi.dlopen(os.environ.get("DXR_LIBRARY", "libdxr.so.0.1"))


class Error(Exception):
    """What the library refuses; the text is the library's. `status` is its number."""

    status = 0


class ArgumentError(Error, ValueError):
    """An argument that makes no sense."""


class NotFoundError(Error, LookupError):
    """No such device."""


class StateError(Error):
    """Not now: it runs, it is there already, it is not connected."""


class RefusedError(Error):
    """The hardware does not do it."""


_CLASSES = {
    lib.DXR_ERROR_ARGUMENT: ArgumentError,
    lib.DXR_ERROR_TEXT: ArgumentError,
    lib.DXR_ERROR_NOT_FOUND: NotFoundError,
    lib.DXR_ERROR_STATE: StateError,
    lib.DXR_ERROR_REFUSED: RefusedError,
}


def check(status: int) -> None:
    """Raises the error of the last call."""
    if status == lib.DXR_OK:
        return
    error = _CLASSES.get(status, Error)(ffi.string(lib.dxr_error_text()).decode())
    error.status = status
    raise error


def result(function: Callable[..., int], *arguments: Any) -> Any:
    """Calls a function whose last argument is where its result goes."""
    kind = ffi.typeof(function).args[-1].item
    place = ffi.new(ffi.getctype(kind, "*"))
    check(function(*arguments, place))
    return place[0]


def encoded(text: str | os.PathLike[str] | bytes, name: str) -> bytes:
    if isinstance(text, str):
        text = text.encode("utf-8", "surrogateescape")  # what is not UTF-8 is the library's to refuse
    if not isinstance(text, bytes):
        raise TypeError(f"{name} is to be text, not {type(text).__name__}")
    if b"\0" in text:
        raise ArgumentError(f"{name} has a null character")
    return text


def decoded(text: Any) -> str:
    return ffi.string(text).decode()


def taken(memory: Any) -> str:
    """A text in memory that the library has handed out."""
    try:
        return decoded(memory)
    finally:
        lib.dxr_free(memory)


in_callback = threading.local()
_unreleased: list[tuple[Any, Any]] = []
_calls: list[object] = []  # under way on any thread, that begin or end callbacks
_has_ended = False


@contextmanager
def callbacks_change(begins: bool) -> Iterator[None]:
    """Around a call that begins or ends callbacks: the interpreter waits for it before it ends, and none begin after that."""
    call = object()
    _calls.append(call)
    try:
        if begins and _has_ended:
            raise StateError("the interpreter is ending")
        yield
    finally:
        _calls.remove(call)


def release(handle: Any, kept: Any = None) -> None:
    """Releases a handle; `kept` is what its callbacks need until then. In an audio callback that would wait for itself:
    garbage that is collected there is released later, by another thread."""
    _unreleased.append((handle, kept))
    with callbacks_change(begins=False):
        while _unreleased and not getattr(in_callback, "depth", 0):
            try:
                each = _unreleased.pop()
            except IndexError:
                return
            lib.dxr_release(each[0])


def owned(owner: Any, handle: Any, kept: Any = None) -> Any:
    """Releases `handle` with its owner, or before the interpreter ends: no callback comes after that."""
    weakref.finalize(owner, release, handle, kept)
    return handle


def _end() -> None:
    """No callback may be running, or begin, once the interpreter is taken apart: it would end the process."""
    global _has_ended
    _has_ended = True
    deadline = time.monotonic() + 10.0
    while _calls and time.monotonic() < deadline:
        time.sleep(0.001)


os.register_at_fork(after_in_child=_calls.clear)  # other threads' calls end in the parent
weakref.finalize(ffi, _end)  # the first to be made is the last that is called, after those of owned()
