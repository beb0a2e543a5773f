"""What is asked of a copy, a move or a comparison, as the binding takes it."""
import dataclasses
import datetime
import os
from typing import Any, Dict, Iterable, List, Optional, Tuple, Union

from ._library import PathLike, ffi, lib, path_bytes, rows, words

Accept = Union[str, Iterable[str]]
Moment = Union[float, datetime.datetime]

_EXISTING = {"fail": 0, "replace": 1, "keep": 2, "keep-both": 3, "update": 4}
_CLONES = {"never": 0, "automatic": 1, "always": 2}
_SYNCS = {"none": 0, "file": 1, "volume": 2}
NAMES = {"plain": 0, "reversible": 1}
_ANY_TIME = -2**63


@dataclasses.dataclass(frozen=True)
class LossClass:
    """A class of what can be lost on the way to another volume.

    severity is "lost" (it is at the source only), "changed" or "costs-more" (as it was, in more room).
    """

    name: str
    severity: str
    meaning: str
    help: str
    one: str
    several: str


_classes: List[LossClass] = [
    LossClass(words(row.name), words(row.severity), words(row.meaning), words(row.help), words(row.one),
              words(row.several)) for row in rows(lib.vexo_loss_classes(), "name")]


def loss_classes() -> Tuple[LossClass, ...]:
    """All classes of losses, in the order in which they are told.

    >>> [one.severity for one in loss_classes() if one.name == "owner"]
    ['changed']
    """
    return tuple(_classes)


def class_name(row: int) -> str:
    return _classes[row].name


def whole(value: int, name: str, least: int, most: int = 2**63 - 1) -> int:
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} is a whole number, not {value!r}")
    if not least <= value <= most:
        raise ValueError(f"{name} is a number from {least} to {most}, not {value!r}")
    return value


def loss_bits(accept: Accept) -> int:
    bits = 0
    for name in [accept] if isinstance(accept, str) else accept:
        if not isinstance(name, str):
            raise TypeError(f"accept is a str, or several, not {accept!r}")
        found = lib.vexo_loss_set(name.encode())
        if found == 0:
            raise ValueError(f"there is no class of losses {name!r}: all, acl, fat, "
                             f"{', '.join(one.name for one in _classes)}")
        bits |= found
    return bits


@dataclasses.dataclass(frozen=True)
class Filters:
    """Which entries of a tree are meant; the others are passed over.

    rules            by name, as rsync has them: "- PATTERN" leaves out, "+ PATTERN" does not, the first that fits holds.
                     A path begins with the name of the tree: "- /album/raw/" is a directory, "- *.bak" is any
    min_size         regular files of so many bytes and more; max_size: and less
    newer_than       regular files that were modified then or later, in seconds as time.time() or as a datetime;
                     older_than: before that
    archive_bit      regular files that have the archive bit
    one_file_system  nothing of other volumes that are mounted in the tree

    >>> import os
    >>> os.makedirs("album/raw")
    >>> for name in "album/dawn", "album/dawn.bak", "album/raw/dawn":
    ...     open(name, "w").close()
    >>> import vexofileop
    >>> vexofileop.copytree("album", "all", filters=Filters(rules=["- raw/", "- *.bak"])).files
    1
    >>> vexofileop.copytree("album", "large", filters=Filters(min_size=1)).files
    0
    """

    rules: Iterable[Union[str, bytes]] = ()
    min_size: Optional[int] = None
    max_size: Optional[int] = None
    newer_than: Optional[Moment] = None
    older_than: Optional[Moment] = None
    archive_bit: bool = False
    one_file_system: bool = False


Filter = Union[Filters, str, Iterable[Union[str, bytes]]]  # rules alone, too


def _nanoseconds(moment: Optional[Moment], name: str) -> int:
    if moment is None:
        return _ANY_TIME
    if isinstance(moment, bool) or not isinstance(moment, (int, float, datetime.datetime)):
        raise TypeError(f"{name} is a number of seconds or a datetime, not {moment!r}")
    seconds = moment.timestamp() if isinstance(moment, datetime.datetime) else moment
    if not abs(seconds) < 2**63 // 10**9:
        raise ValueError(f"{name} is too far from 1970: {moment!r}")
    return seconds * 10**9 if isinstance(seconds, int) else round(seconds * 10**9)


def _size(size: Optional[int], name: str) -> int:
    return -1 if size is None else whole(size, name, 0)


def _rule(rule: Union[str, bytes]) -> bytes:
    given = os.fsencode(rule)
    if b"\0" in given:
        raise ValueError("a rule with a NUL inside")
    return given


def selection(filters: Optional[Filter], kept: List[Any]) -> Any:
    """The record, or a null for everything. What it points to is in `kept`."""
    if filters is None:
        return ffi.NULL
    chosen = filters if isinstance(filters, Filters) else Filters(rules=filters)
    given: List[Union[str, bytes]] = [chosen.rules] if isinstance(chosen.rules, (str, bytes)) else list(chosen.rules)
    rules = [ffi.new("char[]", _rule(one)) for one in given]
    table = ffi.new("char *[]", rules)
    record = ffi.new("VexoSelection *", {
        "rules": table, "rule_count": len(rules), "archived_alone": chosen.archive_bit,
        "one_file_system": chosen.one_file_system, "least_size": _size(chosen.min_size, "min_size"),
        "most_size": _size(chosen.max_size, "max_size"),
        "not_before": _nanoseconds(chosen.newer_than, "newer_than"),
        "before": _nanoseconds(chosen.older_than, "older_than")})
    kept += [rules, table, record]
    return record


def choice(of: Dict[str, int], value: str, name: str) -> int:
    if value not in of:
        raise ValueError(f"{name} is one of {', '.join(of)}, not {value!r}")
    return of[value]


def process_count(jobs: int, asked: bool) -> int:
    if whole(jobs, "jobs", 1, 1024) > 1 and asked:
        raise ValueError("ignore is a function of this process, and cannot be asked by several: jobs=1, or filters")
    return jobs


@dataclasses.dataclass
class Request:
    """A copy or a move as it is asked for."""

    operation: str  # "copy", "copytree", "move", "mirror", "backup_run"
    source: PathLike
    destination: PathLike
    into: bool
    trees: bool = False
    links: bool = False
    existing: str = "fail"
    accept: Accept = ()
    clone: str = "never"
    sync: str = "none"
    verify: bool = False
    checksum: bool = False
    specials: bool = False
    hard_links: bool = True
    retries: int = 0
    bytes_per_second: int = 0
    probe: bool = True
    in_place: bool = False
    names: str = "plain"
    backup: Union[bool, str] = False
    backup_dir: Optional[PathLike] = None
    filters: Optional[Filter] = None
    jobs: int = 1
    max_errors: Optional[int] = None
    _kept: List[Any] = dataclasses.field(default_factory=list)

    def options(self, every_entry: bool, asked: bool = False) -> Any:
        """The record. What it points to lives as long as this. `asked`: a function chooses the entries."""
        if self.checksum and self.existing != "update":
            raise ValueError("checksum says how existing=\"update\" compares, and needs it")
        if self.max_errors is not None:
            whole(self.max_errors, "max_errors", 1)
        reversible = choice(NAMES, self.names, "names")
        if reversible and self.existing == "keep-both":
            raise ValueError("existing=\"keep-both\" gives names of its own, which names=\"reversible\" could not "
                             "bring back")
        suffix, directory = self._backup()
        # An entry that is only counted tells neither that it failed in time, nor of a backup.
        every_entry = every_entry or self.max_errors is not None or suffix != ffi.NULL or directory != ffi.NULL
        return ffi.new("VexoTransferOptions *", {
            "operation": lib.VEXO_MOVE if self.operation == "move" else lib.VEXO_COPY,
            "existing": choice(_EXISTING, self.existing, "existing"),
            "clone": choice(_CLONES, self.clone, "clone"), "sync": choice(_SYNCS, self.sync, "sync"),
            "trees": self.trees, "links": self.links, "into": self.into, "specials": self.specials,
            "hard_links": self.hard_links, "checksum": self.checksum, "verify": self.verify,
            "retries": whole(self.retries, "retries", 0, 2**31 - 1), "every_entry": every_entry, "probe": self.probe,
            "in_place": self.in_place,
            "reversible_names": reversible, "jobs": process_count(self.jobs, asked),
            "bytes_per_second": whole(self.bytes_per_second, "bytes_per_second", 0), "accepted": loss_bits(self.accept),
            "backup_suffix": suffix, "backup_directory": directory,
            "selection": selection(self.filters, self._kept)})

    def _backup(self) -> Tuple[Any, Any]:
        if not isinstance(self.backup, (bool, str)):
            raise TypeError(f"backup is True, or a suffix for the name, not {self.backup!r}")
        if isinstance(self.backup, str) and (not self.backup or "/" in self.backup or "\0" in self.backup):
            raise ValueError(f"backup is True, or a suffix for the name without a slash, not {self.backup!r}")
        suffix, directory = ffi.NULL, ffi.NULL
        if self.backup_dir is not None:
            directory = ffi.new("char[]", path_bytes(self.backup_dir))
        # Below a directory of their own names stay what they are.
        if self.backup and not (self.backup is True and self.backup_dir is not None):
            suffix = ffi.new("char[]", b"~" if self.backup is True else os.fsencode(self.backup))
        self._kept += [suffix, directory]
        return suffix, directory
