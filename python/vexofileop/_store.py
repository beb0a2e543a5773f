"""What belongs to a file beside its data: named attributes, Finder Info, the resource fork."""
import errno
import io
import os
from typing import Any, Iterator, List, MutableMapping, Optional, Tuple, Union

from ._errors import Error, error_of
from ._library import Calls, Failure, PathLike, check, ffi, lib, path_bytes, serial, text, words

_MISSING = 0x2000

FINDER_INFO_SIZE = 32


def _is_missing(error: Error) -> bool:
    return error.code == _MISSING or error.errno == errno.ENODATA


class Attributes(MutableMapping[str, bytes]):
    """The named attributes of a file, wherever its volume keeps them: a mapping of names to bytes.

    Names are those of SMB and AFP clients where they are kept beside the file, and the complete ones of the file system
    ("user.comment") where it keeps them itself; a name that is no UTF-8 comes as os.fsdecode() has it. Each access opens
    what it needs: nothing stays locked, and what others change is seen. A change is all there or not there, whatever stops
    it; one that another program holds a lock on waits ten seconds for it.

    A name that is not there raises KeyError. Anything else raises an Error: NotFound for the file, errno EOPNOTSUPP for a
    volume that keeps nothing, EFBIG for a value that is too large (2 GiB less a byte, or what the file system takes), ELOOP
    for a link, which is not followed.

    >>> open("photo", "w").close()
    >>> notes = attributes("photo")
    >>> notes["user.comment"] = b"first light"
    >>> notes["user.comment"], list(notes), "user.other" in notes
    (b'first light', ['user.comment'], False)
    >>> notes.size("user.comment")
    11
    >>> del notes["user.comment"]
    >>> len(notes)
    0
    """

    def __init__(self, path: PathLike) -> None:
        self._path = os.path.join(os.getcwdb(), path_bytes(path))

    @property
    def path(self) -> str:
        """The file, absolute."""
        return os.fsdecode(self._path)

    @property
    def kept_in(self) -> str:
        """Where the volume keeps them, in words."""
        failure = Failure()
        with serial:
            found = lib.vexo_kept_in(self._path, failure.record)
        if found == ffi.NULL:
            raise failure.error("look for attributes of", self._path)
        return words(found)

    def _name(self, name: Union[str, bytes]) -> bytes:
        given = os.fsencode(name)
        if not given or b"\0" in given:
            raise ValueError("an attribute has a name without a NUL")
        return given

    def _list(self) -> List[Tuple[str, int]]:
        found: List[Tuple[str, int]] = []
        calls, failure = Calls(), Failure()
        each = calls.keep("void(*)(void *, const char *, uint64_t)",
                          lambda _data, name, size: found.append((text(name), size)))
        with serial:
            result = lib.vexo_attributes(self._path, each, ffi.NULL, failure.record)
        calls.finish()
        check(result, failure, "list the attributes of", self._path)
        return found

    def __getitem__(self, name: str) -> bytes:
        given, values = self._name(name), []
        calls, failure = Calls(), Failure()
        take = calls.keep("void(*)(void *, const char *, uint64_t)",
                          lambda _data, value, size: values.append(bytes(ffi.buffer(value, size))))
        with serial:
            result = lib.vexo_attribute(self._path, given, take, ffi.NULL, failure.record)
        calls.finish()
        self._check(result, failure, name, "read an attribute of")
        return values[0]

    def _check(self, result: int, failure: Failure, name: object, doing: str) -> None:
        if result != 0:
            error = failure.error(doing, self._path)
            if _is_missing(error):
                raise KeyError(name) from error
            raise error

    def _set(self, name: str, value: Any, existing: int) -> None:
        given, view = self._name(name), memoryview(value).cast("B")
        failure = Failure()
        with serial:
            result = lib.vexo_set_attribute(self._path, given, ffi.from_buffer(view), len(view), existing,
                                            failure.record)
        self._check(result, failure, name, "set an attribute of")

    def __setitem__(self, name: str, value: bytes) -> None:
        self._set(name, value, lib.VEXO_SET_EITHER)

    def add(self, name: str, value: bytes) -> None:
        """Sets an attribute that is not there; else Exists is raised."""
        self._set(name, value, lib.VEXO_SET_NEW)

    def replace(self, name: str, value: bytes) -> None:
        """Sets an attribute that is there; else KeyError is raised."""
        self._set(name, value, lib.VEXO_SET_EXISTING)

    def __delitem__(self, name: str) -> None:
        failure = Failure()
        with serial:
            result = lib.vexo_remove_attribute(self._path, self._name(name), failure.record)
        self._check(result, failure, name, "remove an attribute of")

    def __iter__(self) -> Iterator[str]:
        """The names as they were when this was called."""
        return iter([name for name, _ in self._list()])

    def __len__(self) -> int:
        return len(self._list())

    def __contains__(self, name: object) -> bool:
        if not isinstance(name, (str, bytes)) or not name:
            return False
        return os.fsdecode(name) in (one for one, _ in self._list())

    def size(self, name: str) -> int:
        """The length of a value, in bytes, without reading it."""
        for one, size in self._list():
            if one == os.fsdecode(name):
                return size
        raise KeyError(name)

    def __repr__(self) -> str:
        return f"vexofileop.attributes({self.path!r})"


def attributes(path: PathLike) -> Attributes:
    """The named attributes of a file. Nothing is opened yet.

    >>> open("song", "w").close()
    >>> attributes("song")["user.comment"] = b"live"
    >>> list(attributes("song").items())
    [('user.comment', b'live')]
    """
    return Attributes(path)


def finder_info(path: PathLike) -> Optional[bytes]:
    """The 32 bytes that the Finder keeps of a file: type, creator, flags, place. None: it has none, or all zero.

    Raises NotFound and the like; errno EOPNOTSUPP where the volume keeps nothing.

    >>> open("drawing", "w").close()
    >>> finder_info("drawing") is None
    True
    >>> set_finder_info("drawing", b"TEXTttxt" + bytes(24))
    >>> finder_info("drawing")[:4]
    b'TEXT'
    """
    failure, found = Failure(), ffi.new("char[]", FINDER_INFO_SIZE)
    with serial:
        result = lib.vexo_finder_info(path_bytes(path), found, failure.record)
    check(result, failure, "read the Finder Info of", path)
    value = bytes(ffi.buffer(found, FINDER_INFO_SIZE))
    return value if any(value) else None


def set_finder_info(path: PathLike, value: Optional[bytes]) -> None:
    """Gives a file the 32 bytes of Finder Info; None: zeros, which count as none.

    They are written in place, as the C functions do. Raises ValueError for another length, else as finder_info().

    >>> open("drawing", "w").close()
    >>> set_finder_info("drawing", b"TEXTttxt" + bytes(24))
    >>> finder_info("drawing")[:8]
    b'TEXTttxt'
    >>> set_finder_info("drawing", None)
    >>> finder_info("drawing") is None
    True
    """
    given = bytes(FINDER_INFO_SIZE) if value is None else bytes(value)
    if len(given) != FINDER_INFO_SIZE:
        raise ValueError(f"Finder Info has {FINDER_INFO_SIZE} bytes, not {len(given)}")
    if not any(given) and finder_info(path) is None:
        return  # and no store is made for it
    failure = Failure()
    with serial:
        result = lib.vexo_set_finder_info(path_bytes(path), given, failure.record)
    check(result, failure, "set the Finder Info of", path)


class ResourceFork(io.RawIOBase):
    """The resource fork of a file, as a raw binary file: read, write, seek, truncate. open_resource_fork() opens one.

    It is locked against other processes while it is open, and is read and written in place; a process loses the lock when
    it closes any other descriptor of the same store, so have one object for a file at a time. Where the file system keeps
    forks itself it is held in memory, and each change writes all of it.
    """

    def __init__(self, path: PathLike, mode: str = "r") -> None:
        super().__init__()
        self._fork: Any = ffi.NULL
        ways = {"r": lib.VEXO_FORK_READ, "r+": lib.VEXO_FORK_WRITE, "w": lib.VEXO_FORK_CREATE,
                "a+": lib.VEXO_FORK_CREATE}
        plain = mode.replace("b", "")
        if plain not in ways:
            raise ValueError(f"the mode is one of r, r+, w, a+, not {mode!r}")
        self.name = os.fsdecode(path_bytes(path))
        self.mode = plain + "b"
        self._at = 0
        failure = Failure()
        with serial:
            self._fork = lib.vexo_fork_open(path_bytes(path), ways[plain], failure.record)
        if self._fork == ffi.NULL:
            error = failure.error("open the resource fork of", path)
            if _is_missing(error):
                raise error_of(0, errno.ENOENT, "it has none", "open the resource fork of", path) from error
            raise error
        try:
            if plain == "w":
                self.truncate(0)
            elif plain == "a+":
                self.seek(0, os.SEEK_END)
        except BaseException:
            self.close()
            raise

    def _open(self) -> Any:
        if self._fork == ffi.NULL:
            raise ValueError("the resource fork is closed")
        return self._fork

    def close(self) -> None:
        """Closes it and gives up the lock."""
        fork, self._fork = getattr(self, "_fork", ffi.NULL), ffi.NULL
        if fork != ffi.NULL:
            lib.vexo_fork_close(fork)
        super().close()

    def readable(self) -> bool:
        self._open()
        return True

    def writable(self) -> bool:
        self._open()
        return self.mode != "rb"

    def seekable(self) -> bool:
        self._open()
        return True

    @property
    def size(self) -> int:
        """Its length in bytes."""
        return int(lib.vexo_fork_size(self._open()))

    def tell(self) -> int:
        self._open()
        return self._at

    def seek(self, offset: int, whence: int = os.SEEK_SET) -> int:
        bases = {os.SEEK_SET: 0, os.SEEK_CUR: self._at, os.SEEK_END: self.size}
        if whence not in bases:
            raise ValueError(f"invalid whence ({whence})")
        if bases[whence] + offset < 0:
            raise ValueError("a position before the beginning")
        self._at = bases[whence] + offset
        return self._at

    def readinto(self, buffer: Any) -> int:
        view = memoryview(buffer).cast("B")
        failure = Failure()
        with serial:
            got = int(lib.vexo_fork_read(self._open(), ffi.from_buffer(view, require_writable=True), len(view),
                                         self._at, failure.record))
        if got < 0:
            raise failure.error("read the resource fork of", self.name)
        self._at += got
        return got

    def write(self, data: Any) -> int:
        view = memoryview(data).cast("B")
        if not self.writable():
            raise io.UnsupportedOperation("not writable")
        failure = Failure()
        with serial:
            result = lib.vexo_fork_write(self._open(), ffi.from_buffer(view), len(view), self._at, failure.record)
        check(result, failure, "write the resource fork of", self.name)
        self._at += len(view)
        return len(view)

    def truncate(self, size: Optional[int] = None) -> int:
        if not self.writable():
            raise io.UnsupportedOperation("not writable")
        length = self._at if size is None else size
        if length < 0:
            raise ValueError("a length below 0")
        failure = Failure()
        with serial:
            result = lib.vexo_fork_truncate(self._open(), length, failure.record)
        check(result, failure, "write the resource fork of", self.name)
        return length

    def sync(self) -> None:
        """Makes what was written durable."""
        failure = Failure()
        with serial:
            result = lib.vexo_fork_sync(self._open(), failure.record)
        check(result, failure, "sync the resource fork of", self.name)


def open_resource_fork(path: PathLike, mode: str = "rb") -> ResourceFork:
    """Opens the resource fork of a file: "rb", "r+b" (one that is there), "wb" (made, or emptied), "a+b" (made, or as it
    is, with the position at its end).

    Raises NotFound where the file or the fork is not there, an Error with code 0x0400 where somebody else has it locked,
    and those of finder_info().

    >>> open("sketch", "w").close()
    >>> with open_resource_fork("sketch", "wb") as fork:
    ...     _ = fork.write(b"hello, world")
    >>> with open_resource_fork("sketch") as fork:
    ...     _ = fork.seek(7)
    ...     fork.read(), fork.size
    (b'world', 12)
    """
    return ResourceFork(path, mode)
