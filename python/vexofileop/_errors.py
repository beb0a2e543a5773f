"""What a call raises."""
import errno
import os
import shutil
from typing import TYPE_CHECKING, Any, Dict, NamedTuple, Optional, Tuple, Type, Union

if TYPE_CHECKING:
    from ._transfer import Receipt


class Explanation(NamedTuple):
    """A code of the library in words: what it says, when it comes, what usually helps."""

    code: int
    reason: str
    cause: str
    help: str


# What helps here, where the table speaks of the command line.
_HELP_HERE = {
    0xA300: "Say what is to become of it: existing=\"replace\", \"keep\", \"keep-both\" or \"update\".",
}

# The number that programs know for a code, where the kernel gave none.
_NUMBERS = {
    0x0100: errno.ENOMEM, 0x0200: errno.ENOMEM, 0x0300: errno.EACCES, 0x0400: errno.EAGAIN, 0x0600: errno.ENOENT,
    0x0700: errno.ENOENT, 0x0800: errno.EEXIST, 0x0D00: errno.EINVAL, 0x1100: errno.EHOSTDOWN, 0x2000: errno.ENODATA,
    0x2400: errno.EDQUOT, 0x2900: errno.ENOSPC, 0x6C00: errno.EIO, 0x8400: errno.EROFS, 0xA000: errno.ENOTDIR,
    0xA200: errno.EISDIR, 0xA300: errno.EEXIST, 0xA400: errno.EFBIG, 0xA600: errno.ECANCELED, 0xAA00: errno.EFBIG,
    0xBF00: errno.EFBIG, 0xC300: errno.ENAMETOOLONG, 0xD900: errno.EOPNOTSUPP, 0xFA00: errno.EPERM,
}

# Of several causes, between which the kernel's number tells.
_SEVERAL = (0x0300, 0x0600, 0x6C00)

_explanations: Dict[int, Explanation] = {}


def explain(code: int) -> Optional[Explanation]:
    """What a code of the library means, or None for a number that is none.

    >>> explain(0xA300).reason
    'destination exists'
    >>> explain(1) is None
    True
    """
    if not _explanations:
        from ._library import lib, rows, words  # which needs the classes of this module

        for row in rows(lib.vexo_errors(), "reason"):
            _explanations[row.code] = Explanation(row.code, words(row.reason), words(row.cause),
                                                  _HELP_HERE.get(row.code, words(row.help)))
    return _explanations.get(code)


class Error(OSError):
    """A failure of the library. It is an OSError, and of the class that Python has for its errno where there is one.

    code      the library's code; 0 where only errno tells
    errno     the kernel's number, or the one that stands for the code; 0 where neither is known
    strerror  the words
    path      what it was about (also as filename), where the call itself failed as it was given
    other     the second path of the call (filename2), or None
    help      what usually helps, or ""
    receipt   of a call that had done something, what it had done; else None
    """

    code: int = 0
    doing: str = ""  # what was being done, as a verb
    path: Optional[str] = None
    other: Optional[str] = None
    receipt: Optional["Receipt"] = None

    @property
    def help(self) -> str:
        known = explain(self.code)
        return known.help if known is not None else ""

    def about(self, path: Any, other: Any) -> None:
        """Sets what it was about."""
        self.path, self.other = _path(path), _path(other)
        self.filename, self.filename2 = self.path, self.other

    def __reduce__(self) -> Tuple[Any, ...]:
        state = dict(self.__dict__, filename=self.filename, filename2=self.filename2, args=self.args)
        return type(self), (self.errno, self.strerror), state

    def __str__(self) -> str:
        place = _displayed(self.path) if self.path is not None else ""
        if self.other is not None:
            place += " -> " + _displayed(self.other)
        before = f"{self.doing} {place}".strip()
        text = f"{before}: {self.strerror}" if before else str(self.strerror)
        number = f"(0x{self.code:04X})"
        return text if self.code == 0 or number in text else f"{text} {number}"


class NotFound(Error, FileNotFoundError):
    """Something is not there."""


class Exists(Error, FileExistsError):
    """Something stands there, and was not to be replaced."""


class Denied(Error, PermissionError):
    """This user may not."""


class IsDirectory(Error, IsADirectoryError):
    """A directory, where a file was asked for."""


class NotDirectory(Error, NotADirectoryError):
    """No directory, where one was asked for."""


class SameFile(Error, shutil.SameFileError):
    """Source and destination are one file, under whatever names."""


class Incomplete(Error, shutil.Error):
    """Not everything arrived: entries failed, or something of them was lost that was not accepted. `receipt` tells.

    As of every shutil.Error of a tree args[0] is a list of tuples: source, destination, and why, of each that failed and
    of the first of each class of losses.
    """


class Cancelled(Error):
    """The caller's own `cancel` has ended the call. Nothing is half done; `receipt` tells what was done."""


_CLASSES: Dict[int, Type[Error]] = {
    errno.ENOENT: NotFound, errno.EEXIST: Exists, errno.EACCES: Denied, errno.EPERM: Denied,
    errno.EISDIR: IsDirectory, errno.ENOTDIR: NotDirectory,
}


def _displayed(path: str) -> str:
    """On one line, whatever bytes are in it."""
    shown = path.encode("utf-8", "surrogateescape").decode("utf-8", "backslashreplace")
    return "".join(repr(one)[1:-1] if not one.isprintable() else one for one in shown)


def _path(path: Union[str, bytes, "os.PathLike[Any]", None]) -> Optional[str]:
    return None if path is None else os.fsdecode(path)


def error_of(code: int, number: int, told: str, doing: str, path: Any, other: Any = None,
             kind: Optional[Type[Error]] = None) -> Error:
    """The exception for a code, an errno and words, of which each may be nothing."""
    known = explain(code)
    # errno may tell of a step before the one that failed, where a code says it better.
    if number == 0 or code not in _SEVERAL:
        number = _NUMBERS.get(code, number)
    said = told or (known.reason if known is not None else os.strerror(number) if number else "failed")
    chosen: Type[Error] = _CLASSES.get(number, Error) if kind is None else kind
    error = chosen(number, said)
    error.code, error.doing = code, doing
    error.about(path, other)
    return error
