"""Archive bits, media indexes, notifications, clone copies, bytes between descriptors: the library's own functions."""
import os
from typing import Any, Callable, NamedTuple, Optional

from ._errors import Cancelled, error_of
from ._library import Calls, Failure, PathLike, check, ffi, forget, last_error, lib, path_bytes, serial

_PATH_SIZE = 4096


def _absolute(path: PathLike) -> bytes:
    return os.path.join(os.getcwdb(), path_bytes(path))


def archive_bit(path: PathLike) -> bool:
    """Whether the DOS archive bit of a file or directory is set: it changed since the last backup. False on a volume that
    keeps none. A link is followed. Raises NotFound and the like.

    >>> open("report", "w").close()
    >>> set_archive_bit("report")
    >>> archive_bit("report")
    True
    >>> clear_archive_bit("report")
    >>> archive_bit("report")
    False
    """
    failure = Failure()
    with serial:
        found = lib.vexo_archive_bit(path_bytes(path), failure.record)
    check(0 if found >= 0 else -1, failure, "look at", path)
    return bool(found)


def clear_archive_bit(path: PathLike) -> None:
    """Clears it, of a directory not of what is in it. A volume that refuses that is no failure. Raises an Error with code
    0x0900 for what cannot be opened.

    >>> open("report", "w").close()
    >>> set_archive_bit("report")
    >>> clear_archive_bit("report")  # it is in the backup now
    >>> archive_bit("report")
    False
    """
    with serial:
        forget()
        if lib.VEXOBackupCleanFileArchiveBit(_absolute(path)) != 0:
            raise last_error("clear the archive bit of", path)


def set_archive_bit(path: PathLike) -> None:
    """Sets it, so that the next backup takes the file along. Raises an Error with errno: EOPNOTSUPP where the volume keeps
    none.

    >>> open("report", "w").close()
    >>> clear_archive_bit("report")
    >>> set_archive_bit("report")
    >>> archive_bit("report")
    True
    """
    with serial:
        forget()
        if lib.EASetSmbArchive(_absolute(path)) != 0:
            raise last_error("set the archive bit of", path)


class Indexing(NamedTuple):
    """Where a path stands with the indexers of media files."""

    enabled: bool
    in_recycle_bin: bool


def index_is_needed() -> bool:
    """Whether anything on the appliance needs an index of media files. The answer holds for the life of the thread.

    >>> index_is_needed() and indexing("that is not there").enabled
    False
    """
    with serial:
        return bool(lib.VEXOIndexIsNeed() == 1)


def indexing(path: PathLike) -> Indexing:
    """Whether a path is to be indexed; what cannot be found out is a "no". Raises nothing but ValueError.

    >>> indexing("anything").in_recycle_bin
    False
    """
    recycle = ffi.new("int *")
    with serial:
        enabled = lib.VEXOIndexIsEnabled(_absolute(path), recycle) == 1
    return Indexing(enabled, recycle[0] != 0)


def indexed_path(path: PathLike) -> str:
    """The path as the indexers name it: absolute, and with the links of a user's home resolved. Raises an Error with errno
    ENAMETOOLONG for one that would be cut.

    >>> import os
    >>> indexed_path("film.mkv") == os.getcwd() + "/film.mkv"
    True
    """
    given = path_bytes(path)
    out = ffi.new("char[]", _PATH_SIZE)
    with serial:
        forget()
        found = lib.VEXOPathResolve(given, out, _PATH_SIZE)
        if found == ffi.NULL:
            raise last_error("resolve", path)
        result: bytes = ffi.string(found)
    if len(given) >= _PATH_SIZE or len(result) >= _PATH_SIZE - 1:
        raise error_of(0xC300, 0, "", "resolve", path)
    return os.fsdecode(result)


def notify(path: PathLike, event: int, previous: Optional[PathLike] = None) -> None:
    """Tells the file-change service of a change that it did not see: the path, the path before a rename, and the service's
    event code. Nobody learns whether the message arrived.

    The call can wait for a service that does not read, and does not return where it ends in the middle: call it from a
    process that you can do without where that matters. From the first call on the process ignores SIGPIPE (as Python does
    anyway).

    >>> import os
    >>> open("draft", "w").close()
    >>> os.rename("draft", "final")
    >>> notify("final", 2, previous="draft")
    """
    before = ffi.NULL if previous is None else _absolute(previous)
    lib.VLIBVXNotifyForce(_absolute(path), before, event)  # outside the lock: it may wait


def fat_name(path: PathLike) -> str:
    """The path with "-" in place of what a FAT volume does not take in its last component.

    >>> fat_name("/volume1/who?.txt")
    '/volume1/who-.txt'
    """
    given, out = _absolute(path), ffi.new("char[]", _PATH_SIZE)
    with serial:
        forget()
        if lib.VEXOStrReplaceFATReservedChar(given, out, _PATH_SIZE) != 0:
            raise last_error("name", path)
    if len(given) >= _PATH_SIZE:
        raise error_of(0xC300, 0, "", "name", path)
    return os.fsdecode(ffi.string(out))


def clones_are_enabled() -> bool:
    """Whether the appliance's switch for clone copies is on.

    >>> import vexofileop
    >>> open("disk.img", "w").close()
    >>> bool(vexofileop.copy("disk.img", "again.img", clone="auto" if clones_are_enabled() else "never"))
    True
    """
    with serial:
        return bool(lib.VEXOFileCopyReflinkIsEnabled() == 1)


def enable_clones(on: bool) -> None:
    """Turns that switch on or off. Raises an Error with code 0xD900 on a machine without btrfs, 0x0B00 where the setting
    was not stored.

    >>> enable_clones(True)
    >>> clones_are_enabled()
    True
    """
    settings = "/etc/vexoinfo.conf"
    with serial:
        forget()
        # The function answers 0 too where nothing was done.
        if lib.VEXOFileCopyReflinkEnable(1 if on else 0) != 0 or lib.VLIBCErrGet() != 0:
            raise last_error("switch clones in", settings)
        if bool(lib.VEXOFileCopyReflinkIsEnabled() == 1) != bool(on):
            raise error_of(0x0B00, 0, "", "switch clones in", settings)


def copy_data(source: int, destination: int, size: int, *, progress: Optional[Callable[[int], object]] = None,
              cancel: Optional[Callable[[], object]] = None) -> None:
    """Copies `size` bytes from one open descriptor, which stands at its start, to where the other stands. Both stay the
    caller's and open. Holes are skipped where the destination can have them.

    progress  called with the bytes that are done so far, after each block
    cancel    asked before each block; true raises Cancelled

    Raises an Error with the codes of VEXOFileOpCopyFileFd. What was written before a failure stays.

    >>> with open("rows", "w") as file:
    ...     _ = file.write("0123456789")
    >>> with open("rows", "rb") as one, open("half", "wb") as other:
    ...     copy_data(one.fileno(), other.fileno(), 5)
    >>> open("half").read()
    '01234'
    """
    calls = Calls(cancel)
    done = 0

    def on_progress(_data: object, more: int, _offset: int) -> None:
        nonlocal done
        done += more
        if progress is not None:
            progress(done)

    record: Any = ffi.new("VEXOCopyArgs *", {"fsTypeSrc": -1, "fsTypeDst": -1})
    record.progress = calls.keep("VEXOCopyProgressFn", on_progress)
    record.isCancel = calls.keep("VEXOCopyIsCancelFn", lambda _data: calls.asked(), 1)
    with serial:
        forget()
        result = lib.VEXOFileOpCopyFileFd(source, destination, size, record)
        error = last_error("copy_data", f"descriptor {source}") if result < 0 else None
    calls.finish()
    if error is not None and calls.cancelled and error.code == 0xA600:
        raise error_of(0xA600, 0, "", "copy_data", f"descriptor {source}", None, Cancelled)
    if error is not None:
        raise error
