"""The libraries, opened once, and what a call of theirs comes to."""
import os
import threading
from typing import Any, Callable, Iterator, List, Optional, Type, Union

try:
    from . import _declarations
except ImportError as missing:  # pragma: no cover
    raise ImportError(f"vexofileop: {missing}; its run-time part is Debian's python3-cffi-backend") from missing

from ._errors import Error, error_of

ffi: Any = _declarations.ffi

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

_RECORDS = ("VexoFailure", "VexoProblem", "VexoLoss", "VexoEntry", "VexoRoom", "VexoCallbacks", "VexoSelection",
            "VexoTransferOptions", "VexoComparisonOptions", "VexoRelocation", "VexoMirrored",
            "VexoBackedUp", "VexoFinding", "VexoConversion", "VexoSurveyed", "VEXOCopyArgs")


def _open() -> Any:
    """The binding, and through it the library and the platform's, on which it depends."""
    # What it needs is found from where it stands itself, which in a build tree a link leads to.
    place = os.path.realpath(os.path.join(os.path.dirname(__file__), _declarations.BINDING))
    try:
        opened = ffi.dlopen(place, ffi.RTLD_NOW | ffi.RTLD_LOCAL)
    except OSError as failed:
        raise ImportError(f"vexofileop: {failed}") from failed
    sizes = opened.vexo_binding_sizes()
    if opened.vexo_binding_version() != opened.VEXO_BINDING_VERSION or any(
            sizes[at] != ffi.sizeof(name) for at, name in enumerate(_RECORDS)) or sizes[len(_RECORDS)] != 0:
        raise ImportError(f"vexofileop: {place} is of another version than this package")
    return opened


lib: Any = _open()

class _Serial:
    """One call at a time: the umask and the effective user are the process's, and the library puts back what it found. Of
    two calls at once the one would put back what the other has set. The thread that has it may call again, from a
    callback; a process that was forked meanwhile has one of its own."""

    def __init__(self) -> None:
        self._lock = threading.RLock()
        os.register_at_fork(after_in_child=self.renew)

    def renew(self) -> None:
        self._lock = threading.RLock()

    def __enter__(self) -> None:
        self._lock.acquire()

    def __exit__(self, *_: object) -> None:
        self._lock.release()


serial = _Serial()


def path_bytes(path: PathLike) -> bytes:
    """A path as C takes it. ValueError for an empty one, and for one with a NUL inside."""
    given = os.fsencode(path)
    if not given:
        raise ValueError("an empty path")
    if b"\0" in given:
        raise ValueError("a path with a NUL inside")
    return given


def text(pointer: Any) -> str:
    """Bytes of a name, as os.fsdecode() has them."""
    return os.fsdecode(ffi.string(pointer))


def words(pointer: Any) -> str:
    """A message."""
    return str(ffi.string(pointer), "utf-8", "backslashreplace")


class Failure:
    """The record that a call leaves its reason in."""

    def __init__(self) -> None:
        self.record = ffi.new("VexoFailure *")

    def error(self, doing: str, path: PathLike, other: Optional[PathLike] = None) -> Error:
        return failure_error(self.record, doing, path, other)


def failure_error(record: Any, doing: str, path: PathLike, other: Optional[PathLike] = None) -> Error:
    return error_of(record.code, record.number, words(record.text), doing, path, other)


def check(result: int, failure: Failure, doing: str, path: PathLike, other: Optional[PathLike] = None) -> None:
    if result != 0:
        raise failure.error(doing, path, other)


def last_error(doing: str, path: PathLike) -> Error:
    """What a call of the C interface left, made right after it."""
    return error_of(lib.VLIBCErrGet(), ffi.errno, "", doing, path)


def forget() -> None:
    """Before a call of the C interface: one that fails without a code leaves the code that was there."""
    if lib.VLIBCErrGet() != 0:
        lib.VLIBCErrSetEx(0, lib.VLIBCErrorGetFile(), 0)
    ffi.errno = 0


def check_callable(function: Optional[Callable[..., object]], name: str) -> None:
    """Before anything is done, not at its end."""
    if function is not None and not callable(function):
        raise TypeError(f"{name} is called, and {function!r} cannot be")


class Calls:
    """The callbacks of one call: they are kept alive while it runs, and what one of them raises is kept until it is over.

    After an exception no other callback runs, and `stopped` says that it is enough.
    """

    def __init__(self, cancel: Optional[Callable[[], object]] = None) -> None:
        check_callable(cancel, "cancel")
        self.raised: Optional[BaseException] = None
        self.cancelled = False
        self._cancel = cancel
        self._kept: List[Any] = []
        self.record = ffi.new("VexoCallbacks *")
        # Also without a `cancel`: this is where Python looks whether Ctrl-C was pressed.
        self.set("stopped", lambda _data: self.asked(), 1)

    def keep(self, kind: str, function: Callable[..., Any], otherwise: Any = None) -> Any:
        """A C function that calls this one. `otherwise` is its result where it raises, or another has."""

        def guarded(*arguments: Any) -> Any:
            return otherwise if self.raised is not None else function(*arguments)

        def failed(_kind: Type[BaseException], raised: BaseException, _trace: object) -> None:
            if self.raised is None:
                self.raised = raised

        if otherwise is None:
            made = ffi.callback(kind, guarded, onerror=failed)
        else:
            made = ffi.callback(kind, guarded, error=otherwise, onerror=failed)
        self._kept.append(made)
        return made

    def set(self, slot: str, function: Callable[..., Any], otherwise: Any = None) -> None:
        field = dict(ffi.typeof("VexoCallbacks").fields)[slot]
        setattr(self.record, slot, self.keep(field.type, function, otherwise))

    def asked(self) -> int:
        if not self.cancelled and self._cancel is not None:
            self.cancelled = bool(self._cancel())
        return 1 if self.cancelled else 0

    def finish(self) -> None:
        """Raises what a callback has raised."""
        self._kept.clear()
        if self.raised is not None:
            raise self.raised


def rows(first: Any, end: str) -> Iterator[Any]:
    """A table of the binding's, whose last row has a null there."""
    at = 0
    while getattr(first[at], end) != ffi.NULL:
        yield first[at]
        at += 1
