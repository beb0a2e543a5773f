"""Copying, moving, renaming, removing, comparing: whole files and trees with everything that belongs to them."""
import dataclasses
import os
import stat
from typing import Any, Callable, Dict, Iterable, List, Optional, Set, Tuple, Union

from ._errors import Cancelled, Error, Exists, Incomplete, NotDirectory, NotFound, error_of
from ._library import Calls, Failure, PathLike, check, ffi, failure_error, lib, path_bytes, rows, serial, text, words

# So many failed entries and differences are kept one by one; the rest is counted.
KEPT = 10000

Ignore = Callable[[str, List[str]], Iterable[str]]
Accept = Union[str, Iterable[str]]


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


@dataclasses.dataclass(frozen=True)
class Loss:
    """Something that an entry has and its copy has not, or not as it was."""

    name: str
    detail: str
    accepted: bool
    fails: bool


@dataclasses.dataclass(frozen=True)
class Difference:
    """A loss, and the two entries that it is about."""

    source: str
    destination: str
    loss: Loss

    @property
    def name(self) -> str:
        return self.loss.name

    def __str__(self) -> str:
        return f"{self.source} -> {self.destination}: {self.loss.detail} ({self.loss.name})"


@dataclasses.dataclass(frozen=True)
class Entry:
    """What became of an entry, or of a plan what would.

    kind         "file", "link", "directory", "other"
    status       "done", "skipped", "failed", "cancelled"; of a plan "new", "replace", "merge", "rename", "skip", "fail"
    destination  where it is, which may be another name than asked for
    bytes        the size of a file
    same         it stood there already
    linked       it is another name of what an earlier entry has become
    source_kept  of a move: it is at both places
    losses       what the destination has not, or not as it was
    error        why it failed, or was skipped; None where there is nothing to say
    warning      done, but not as it should be
    """

    kind: str
    status: str
    source: str
    destination: str
    bytes: int
    cloned: bool
    same: bool
    linked: bool
    source_kept: bool
    losses: Tuple[Loss, ...]
    error: Optional[Error]
    warning: Optional[Error]


@dataclasses.dataclass
class Receipt:
    """What a copy or a move came to. As a path it is its destination: open(vexofileop.copy(a, b)).

    files, directories  so many arrived, links and special files among the files
    bytes               of the files that arrived
    skipped, failed     so many entries were
    same                so many stood there already; of a move their sources are gone
    losses              how many of each class, by name, accepted ones among them
    examples            the first loss of each class
    failures            the entries that failed, the first KEPT of them
    left_over           what stands in directories of the destination under names of what is under way, and may be of
                        another machine's command that is not over, or somebody's own: it stays
    """

    operation: str
    source: str
    destination: str
    files: int = 0
    directories: int = 0
    bytes: int = 0
    skipped: int = 0
    same: int = 0
    failed: int = 0
    cloned: int = 0
    sources_kept: int = 0
    cancelled: bool = False
    losses: Dict[str, int] = dataclasses.field(default_factory=dict)
    examples: Dict[str, Difference] = dataclasses.field(default_factory=dict)
    failures: List[Error] = dataclasses.field(default_factory=list)
    left_over: List[str] = dataclasses.field(default_factory=list)
    _missing: int = 0

    def __fspath__(self) -> str:
        return self.destination

    @property
    def complete(self) -> bool:
        """Everything arrived but what was accepted, and what was to be skipped."""
        return not self.cancelled and self.failed == 0 and self._missing == 0

    def _add_loss(self, difference: Difference) -> None:
        self.losses[difference.name] = self.losses.get(difference.name, 0) + 1
        self.examples.setdefault(difference.name, difference)
        self._missing += difference.loss.fails

    def _add_failure(self, error: Error) -> None:
        self.failed += 1
        if len(self.failures) < KEPT:
            self.failures.append(error)


@dataclasses.dataclass(frozen=True)
class Room:
    """What a plan needs on one volume, and what is free there. None: not known, or there is no such limit."""

    directory: str
    bytes_needed: int
    inodes_needed: int
    bytes_free: Optional[int]
    inodes_free: Optional[int]
    quota_bytes_free: Optional[int]
    quota_inodes_free: Optional[int]
    probed: bool

    @property
    def suffices(self) -> bool:
        """Whether it is there, as far as it is known."""
        return all(free is None or needed <= free for needed, free in (
            (self.bytes_needed, self.bytes_free), (self.bytes_needed, self.quota_bytes_free),
            (self.inodes_needed, self.inodes_free), (self.inodes_needed, self.quota_inodes_free)))


@dataclasses.dataclass
class Plan:
    """What a copy or a move would do: each entry, the losses as in a Receipt, and the room that it takes."""

    operation: str
    source: str
    destination: str
    entries: List[Entry] = dataclasses.field(default_factory=list)
    rooms: List[Room] = dataclasses.field(default_factory=list)
    losses: Dict[str, int] = dataclasses.field(default_factory=dict)

    def count(self, status: str) -> int:
        """How many entries would be "new", "replace", "merge", "rename", "skip" or "fail"."""
        return sum(entry.status == status for entry in self.entries)

    @property
    def bytes(self) -> int:
        return sum(entry.bytes for entry in self.entries if entry.status not in ("skip", "fail"))

    @property
    def complete(self) -> bool:
        """Whether the run would end without an exception, as far as a plan can tell."""
        return self.count("fail") == 0 and not any(loss.fails for entry in self.entries for loss in entry.losses)


@dataclasses.dataclass
class Comparison:
    """What the second of two trees lacks of the first, and what only it has.

    differences, extra  the first KEPT of each; `differing` and `extras` count all of them
    files, directories  compared entries of the first
    left_over           what a command that was stopped has left at either; it is not compared
    """

    first: str
    second: str
    differences: List[Difference] = dataclasses.field(default_factory=list)
    extra: List[str] = dataclasses.field(default_factory=list)
    differing: int = 0
    extras: int = 0
    files: int = 0
    directories: int = 0
    bytes: int = 0
    losses: Dict[str, int] = dataclasses.field(default_factory=dict)
    left_over: List[str] = dataclasses.field(default_factory=list)

    @property
    def same(self) -> bool:
        """Nothing differs, and the second has nothing that the first has not."""
        return self.differing == 0 and self.extras == 0

    def __bool__(self) -> bool:
        """As `same`."""
        return self.same


@dataclasses.dataclass
class Removal:
    """What a removal came to: so many entries went, and which did not, the first KEPT of them."""

    path: str
    removed: int = 0
    failed: int = 0
    failures: List[Error] = dataclasses.field(default_factory=list)


_KINDS = ("file", "link", "directory", "other")
_STATUSES = ("done", "skipped", "failed", "cancelled", "new", "replace", "merge", "rename", "skip", "fail")
_EXISTING = {"fail": 0, "replace": 1, "keep": 2, "keep-both": 3, "update": 4}
_CLONES = {"never": 0, "automatic": 1, "always": 2}
_SYNCS = {"none": 0, "file": 1, "volume": 2}

_classes: List[LossClass] = [
    LossClass(words(row.name), words(row.severity), words(row.meaning), words(row.help), words(row.one),
              words(row.several)) for row in rows(lib.vexo_loss_classes(), "name")]


def loss_classes() -> Tuple[LossClass, ...]:
    """All classes of losses, in the order in which they are told.

    >>> [one.severity for one in loss_classes() if one.name == "owner"]
    ['changed']
    """
    return tuple(_classes)


def _choice(of: Dict[str, int], value: str, name: str) -> int:
    if value not in of:
        raise ValueError(f"{name} is one of {', '.join(of)}, not {value!r}")
    return of[value]


def _loss_bits(accept: Accept) -> int:
    bits = 0
    for name in [accept] if isinstance(accept, str) else accept:
        found = lib.vexo_loss_set(name.encode())
        if found == 0:
            raise ValueError(f"there is no class of losses {name!r}: all, acl, fat, "
                             f"{', '.join(one.name for one in _classes)}")
        bits |= found
    return bits


def _loss(record: Any) -> Loss:
    return Loss(_classes[record.loss_class].name, words(record.detail), bool(record.accepted), bool(record.fails))


def _problem(record: Any, path: str, other: Optional[str]) -> Optional[Error]:
    if record == ffi.NULL:
        return None
    return error_of(record.code, record.number, words(record.text), "", path, None if record.of_source else other)


def _entry(record: Any) -> Entry:
    source, destination = text(record.source), text(record.destination)
    flags = record.flags
    return Entry(_KINDS[record.kind], _STATUSES[record.status], source, destination, record.bytes,
                 bool(flags & lib.VEXO_ENTRY_CLONED), bool(flags & lib.VEXO_ENTRY_SAME),
                 bool(flags & lib.VEXO_ENTRY_LINKED), bool(flags & lib.VEXO_ENTRY_SOURCE_STAYS),
                 tuple(_loss(record.losses[at]) for at in range(record.loss_count)),
                 _problem(record.problem, source, destination), _problem(record.warning, source, destination))


class _Ignored:
    """What a function like those of shutil.copytree leaves out, asked once for each directory.

    Of a comparison it is asked of the names at both ends, by the path of the first.
    """

    def __init__(self, top: bytes, ignore: Ignore, second: Optional[bytes] = None) -> None:
        self._above, self._second = os.path.dirname(os.path.abspath(top)), second
        self._ignore = ignore
        self._names: Dict[bytes, Set[bytes]] = {}

    def meant(self, path: bytes) -> bool:
        directory, name = os.path.split(path)
        if not directory:
            return True  # the tree itself
        if directory not in self._names:
            # A walk goes down and comes back: what is neither above nor here is behind it.
            for known in [one for one in self._names if not (directory + b"/").startswith(one + b"/")]:
                del self._names[known]
            place = os.fsdecode(os.path.join(self._above, directory))
            names = self._ignore(place, self._listed(directory))
            self._names[directory] = {os.fsencode(one) for one in names}
        return name not in self._names[directory]

    def _listed(self, directory: bytes) -> List[str]:
        places = [os.path.join(self._above, directory)]
        if self._second is not None:
            places.append(os.path.join(self._second, *directory.split(b"/")[1:]))
        found: Dict[str, None] = {}
        for place in places:
            try:
                found.update(dict.fromkeys(os.fsdecode(name) for name in os.listdir(place)))
            except (FileNotFoundError, NotADirectoryError):
                pass  # it is gone, or the second has none
        return list(found)


class _Run(Calls):
    """The callbacks of a copy, a move, a plan of one, a comparison or a relocation."""

    def __init__(self, cancel: Optional[Callable[[], object]], progress: Optional[Callable[[int], object]],
                 ignored: Optional[_Ignored] = None) -> None:
        super().__init__(cancel)
        self.done = 0
        if progress is not None:
            told = progress

            def on_progress(_data: object, more: int) -> None:
                self.done += more
                told(self.done)

            self.set("progress", on_progress)
        if ignored is not None:
            asked = ignored
            self.set("meant", lambda _data, path, _directory: int(asked.meant(ffi.string(path))), 0)


@dataclasses.dataclass
class _Request:
    """A copy or a move as it is asked for."""

    operation: str  # "copy", "copytree", "move"
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

    def options(self, every_entry: bool) -> Any:
        if self.checksum and self.existing != "update":
            raise ValueError("checksum says how existing=\"update\" compares, and needs it")
        return ffi.new("VexoTransferOptions *", {
            "operation": lib.VEXO_MOVE if self.operation == "move" else lib.VEXO_COPY,
            "existing": _choice(_EXISTING, self.existing, "existing"),
            "clone": _choice(_CLONES, self.clone, "clone"), "sync": _choice(_SYNCS, self.sync, "sync"),
            "trees": self.trees, "links": self.links, "into": self.into, "specials": self.specials,
            "hard_links": self.hard_links, "checksum": self.checksum, "verify": self.verify,
            "retries": self.retries, "every_entry": every_entry, "probe": self.probe,
            "bytes_per_second": self.bytes_per_second, "accepted": _loss_bits(self.accept)})


def _add(receipt: Receipt, entry: Entry) -> None:
    if entry.status == "done":
        receipt.directories += entry.kind == "directory"
        receipt.files += entry.kind != "directory"
        receipt.bytes += entry.bytes if entry.kind != "directory" and not entry.same else 0
        receipt.same += entry.same
        receipt.cloned += entry.cloned
        receipt.sources_kept += entry.source_kept
    elif entry.status == "skipped":
        receipt.skipped += 1
        receipt.same += entry.same
    for loss in entry.losses:
        receipt._add_loss(Difference(entry.source, entry.destination, loss))
    error = entry.error if entry.status == "failed" else entry.warning
    if entry.status == "failed" and error is None:
        told = entry.losses[0].detail if entry.losses else "failed"
        error = error_of(0, 0, told, "", entry.source, entry.destination)
    if error is not None:
        receipt._add_failure(error)


def _settle(receipt: Receipt, calls: Calls, doing: str, entries: int) -> Receipt:
    """Raises what a run has to raise at its end."""
    calls.finish()
    if calls.cancelled:
        receipt.cancelled = True
        error = error_of(0xA600, 0, "", doing, receipt.source, receipt.destination, Cancelled)
    elif receipt.complete:
        return receipt
    elif receipt.failed == 1 and entries == 1 and receipt.files + receipt.directories == 0:
        error = receipt.failures[0]
        error.doing = doing
        error.about(receipt.source, error.other and receipt.destination)
    else:
        first = receipt.failures[0] if receipt.failures else None
        missing = [one for one in receipt.examples.values() if one.loss.fails]
        told = [f"{receipt.failed} failed, the first: {first}"] if first is not None else []
        told += [f"{receipt.losses[one.name]} of {one.name} lost, the first: {one}" for one in missing]
        number = (first.errno or 0) if first is not None else 0
        error = error_of(first.code if first is not None else 0, number, "; ".join(told), doing, receipt.source,
                         receipt.destination, Incomplete)
    error.receipt = receipt
    raise error


def _transfer(request: _Request, ignore: Optional[Ignore], on_entry: Optional[Callable[[Entry], object]],
              progress: Optional[Callable[[int], object]], cancel: Optional[Callable[[], object]]) -> Receipt:
    source, destination = path_bytes(request.source), path_bytes(request.destination)
    options = request.options(on_entry is not None)
    calls = _Run(cancel, progress, _Ignored(source, ignore) if ignore is not None else None)
    receipt = Receipt(request.operation, os.fsdecode(source), os.fsdecode(destination))
    if request.into and os.path.isdir(destination):
        receipt.destination = os.fsdecode(os.path.join(destination, os.path.basename(os.path.abspath(source))))
    entries: List[Entry] = []

    def on_told(_data: object, record: Any) -> None:
        entry = _entry(record)
        entries[:] = entries[:1] + [entry] if entries else [entry]
        _add(receipt, entry)
        if on_entry is not None:
            on_entry(entry)

    def on_arrived(_data: object, files: int, size: int) -> None:
        receipt.files += files
        receipt.bytes += size

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = _problem(problem, text(path), None)
        if error is not None:
            receipt._add_failure(error)

    calls.set("entry", on_told)
    calls.set("left_over", lambda _data, path: receipt.left_over.append(text(path)))
    calls.set("arrived", on_arrived)
    calls.set("failed", on_failed)
    failure = Failure()
    with serial:
        result = lib.vexo_transfer(source, destination, options, calls.record, failure.record)
    if result != 0:
        calls.finish()
        raise failure.error(request.operation, source, destination)
    if len(entries) == 1 and receipt.files + receipt.directories == 1 and entries[0].destination:
        receipt.destination = entries[0].destination
    return _settle(receipt, calls, request.operation, len(entries))


def _is_directory(given: bytes, look: Callable[[bytes], os.stat_result], doing: str, path: PathLike,
                  other: Optional[PathLike] = None) -> bool:
    try:
        return stat.S_ISDIR(look(given).st_mode)
    except OSError as failed:
        raise error_of(0, failed.errno or 0, "", doing, path, other) from None


def copy(source: PathLike, destination: PathLike, *, follow_symlinks: bool = True, existing: str = "fail",
         accept: Accept = (), clone: str = "never", sync: str = "none", verify: bool = False, checksum: bool = False,
         specials: bool = False, retries: int = 0, bytes_per_second: int = 0,
         on_entry: Optional[Callable[[Entry], object]] = None, progress: Optional[Callable[[int], object]] = None,
         cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Copies a file with everything that belongs to it, to a path or into a directory that exists, as shutil.copy does.

    Unlike that it replaces nothing unasked. The copy stands under a private name until all of it is there and was
    compared; what it replaces stays until that moment.

    follow_symlinks   False: a link is copied as a link
    existing          what stands at the destination: "fail" (Exists is raised), "replace", "keep" (a success),
                      "keep-both" (the copy gets a free name), "update" (kept where it is the same, else replaced)
    accept            classes of losses (see loss_classes()) that are no failure, or "all", "acl", "fat"
    clone             share the data on btrfs and XFS: "never", "automatic" (where that can be and is allowed), "always"
    sync              what is on the disk before the call returns: "none", "file", "volume"
    verify            read the copy back and compare it with the source
    checksum          with "update": read what seems to be the same
    specials          make pipes, devices and sockets anew; else they are a loss
    retries           so many more attempts at what failed for something that may pass
    bytes_per_second  at most; 0: any number
    on_entry          called with the Entry, when it is known what became of it
    progress          called with the bytes that are done so far, after each block
    cancel            asked before each block; true ends the call with Cancelled, and leaves nothing half done

    Returns a Receipt. Raises NotFound, Exists, IsDirectory, Denied or another Error; Incomplete where the copy is there
    without something that was not accepted; and what a callback raises, which ends the call as `cancel` does.

    >>> with open("original", "w") as file:
    ...     _ = file.write("light")
    >>> receipt = copy("original", "copy")
    >>> receipt.files, receipt.bytes, open(receipt).read()
    (1, 5, 'light')
    >>> try:
    ...     copy("original", "copy")
    ... except FileExistsError as error:
    ...     print(error, error.code == 0xA300, sep="; ")
    copy original -> copy: destination exists (0xA300); True
    >>> copy("original", "copy", existing="keep-both").destination.endswith("copy (1)")
    True
    """
    request = _Request("copy", source, destination, True, links=not follow_symlinks, existing=existing, accept=accept,
                       clone=clone, sync=sync, verify=verify, checksum=checksum, specials=specials, retries=retries,
                       bytes_per_second=bytes_per_second)
    return _transfer(request, None, on_entry, progress, cancel)


def copytree(source: PathLike, destination: PathLike, symlinks: bool = True, ignore: Optional[Ignore] = None, *,
             dirs_exist_ok: bool = False, existing: str = "fail", accept: Accept = (), clone: str = "never",
             sync: str = "none", verify: bool = False, checksum: bool = False, specials: bool = False,
             hard_links: bool = True, retries: int = 0, bytes_per_second: int = 0,
             on_entry: Optional[Callable[[Entry], object]] = None, progress: Optional[Callable[[int], object]] = None,
             cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Copies a directory with everything in it to the path `destination`, as shutil.copytree does.

    symlinks       links stay links; to follow them (False) is not offered, since whoever may write into the tree says
                   where they lead
    ignore         as of shutil.copytree: called with each directory and the names in it, gives those to leave out;
                   shutil.ignore_patterns("*.bak") makes one
    dirs_exist_ok  merge into a directory that exists; else Exists is raised
    existing       what stands at the destination of a file, as for copy()
    hard_links     names of one file stay that, where the volume can

    The rest is as for copy(); on_entry is called for each entry, without it those that arrived are only counted.
    An entry that fails does not keep the others from being copied: Incomplete is raised at the end, whose receipt says
    which. The function is there as copy_tree too.

    >>> import os, shutil
    >>> os.makedirs("album/2024")
    >>> for name in "album/list", "album/2024/dawn", "album/2024/dawn.bak":
    ...     open(name, "w").close()
    >>> copytree("album", "backup", ignore=shutil.ignore_patterns("*.bak")).files
    2
    >>> sorted(os.listdir("backup/2024"))
    ['dawn']
    >>> copytree("album", "backup", dirs_exist_ok=True, existing="update").same
    2
    """
    if not symlinks:
        raise ValueError("copytree follows no links: symlinks=True is what it does")
    given = path_bytes(source)
    if not _is_directory(given, os.stat, "copytree", source, destination):
        raise error_of(0xA000, 0, "the source is not a directory", "copytree", source, destination, NotDirectory)
    if os.path.islink(given.rstrip(b"/")):
        given = os.path.realpath(given)
    if not dirs_exist_ok and os.path.lexists(path_bytes(destination)):
        raise error_of(0xA300, 0, "", "copytree", source, destination, Exists)
    request = _Request("copytree", given, destination, False, trees=True, existing=existing, accept=accept,
                       clone=clone, sync=sync, verify=verify, checksum=checksum, specials=specials,
                       hard_links=hard_links, retries=retries, bytes_per_second=bytes_per_second)
    return _transfer(request, ignore, on_entry, progress, cancel)


copy_tree = copytree


def move(source: PathLike, destination: PathLike, *, existing: str = "fail", accept: Accept = (), sync: str = "none",
         verify: bool = False, checksum: bool = False, specials: bool = False, retries: int = 0,
         bytes_per_second: int = 0, on_entry: Optional[Callable[[Entry], object]] = None,
         progress: Optional[Callable[[int], object]] = None,
         cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Moves a file, link or directory to a path or into a directory that exists, as shutil.move does.

    Within a volume it is renamed. To another one it is copied and compared, and the source goes last, if nothing was
    lost that was not accepted and it still is what was copied; else it stays, `sources_kept` counts it, and Incomplete is
    raised. The options are those of copy(); directories are merged into.

    >>> with open("draft", "w") as file:
    ...     _ = file.write("text")
    >>> receipt = move("draft", "final")
    >>> import os
    >>> os.path.exists("draft"), open("final").read()
    (False, 'text')
    """
    request = _Request("move", source, destination, True, trees=True, links=True, existing=existing, accept=accept,
                       sync=sync, verify=verify, checksum=checksum, specials=specials, retries=retries,
                       bytes_per_second=bytes_per_second)
    return _transfer(request, None, on_entry, progress, cancel)


def plan(source: PathLike, destination: PathLike, operation: str = "copy", *, ignore: Optional[Ignore] = None,
         existing: str = "fail", accept: Accept = (), clone: str = "never", checksum: bool = False,
         specials: bool = False, hard_links: bool = True, probe: bool = True,
         cancel: Optional[Callable[[], object]] = None) -> Plan:
    """What copy(), copytree() (with dirs_exist_ok=True) or move() (`operation`) would do, without doing it.

    probe  what a volume takes is tried at the destination, in a private directory that is removed again; False: the
           system is believed

    Returns a Plan. Raises an Error where the request makes no sense, and Cancelled.

    >>> with open("letter", "w") as file:
    ...     _ = file.write("words")
    >>> planned = plan("letter", "archive")
    >>> [(entry.status, entry.bytes) for entry in planned.entries], planned.complete, planned.rooms[0].suffices
    ([('new', 5)], True, True)
    """
    if operation not in ("copy", "copytree", "move"):
        raise ValueError("operation is one of copy, copytree, move")
    given, to = path_bytes(source), path_bytes(destination)
    request = _Request(operation, given, to, operation != "copytree", trees=operation != "copy",
                       links=operation != "copy", existing=existing, accept=accept, clone=clone, checksum=checksum,
                       specials=specials, hard_links=hard_links, probe=probe)
    options = request.options(True)
    calls = _Run(cancel, None, _Ignored(given, ignore) if ignore is not None else None)
    planned = Plan(operation, os.fsdecode(given), os.fsdecode(to))

    def on_entry(_data: object, record: Any) -> None:
        entry = _entry(record)
        planned.entries.append(entry)
        for loss in entry.losses:
            planned.losses[loss.name] = planned.losses.get(loss.name, 0) + 1

    def known(number: int) -> Optional[int]:
        return None if number < 0 else number

    def on_room(_data: object, record: Any) -> None:
        planned.rooms.append(Room(text(record.directory), record.bytes_needed, record.inodes_needed,
                                  known(record.bytes_free), known(record.inodes_free),
                                  known(record.quota_bytes_free), known(record.quota_inodes_free),
                                  bool(record.probed)))

    calls.set("entry", on_entry)
    calls.set("room", on_room)
    failure = Failure()
    with serial:
        result = lib.vexo_plan(given, to, options, calls.record, failure.record)
    calls.finish()
    check(result, failure, "plan", source, destination)
    if calls.cancelled:
        raise error_of(0xA600, 0, "", "plan", source, destination, Cancelled)
    return planned


def compare(first: PathLike, second: PathLike, *, data: bool = True, times: bool = True,
            ignore: Optional[Ignore] = None, progress: Optional[Callable[[int], object]] = None,
            cancel: Optional[Callable[[], object]] = None) -> Comparison:
    """What `second` lacks of `first` or has otherwise, two files or two trees, whatever their volumes keep it in.

    data    content is read; False: sizes are compared
    times   modification and creation times count
    ignore  as of copytree(), with the names at both: they are passed over

    Returns a Comparison, which is true where nothing differs. Raises an Error where one of the two cannot be looked at
    (what cannot be read below that is a difference of the class "unreadable"), and Cancelled.

    >>> for name, words in ("one", "a"), ("other", "b"):
    ...     with open(name, "w") as file:
    ...         _ = file.write(words)
    >>> found = compare("one", "other", times=False)
    >>> bool(found), [difference.name for difference in found.differences]
    (False, ['data'])
    """
    one, other = path_bytes(first), path_bytes(second)
    calls = _Run(cancel, progress, _Ignored(one, ignore, other) if ignore is not None else None)
    came = Comparison(os.fsdecode(one), os.fsdecode(other))

    def on_lost(_data: object, source: Any, destination: Any, record: Any) -> None:
        found = Difference(text(source), text(destination), _loss(record))
        came.differing += 1
        came.losses[found.name] = came.losses.get(found.name, 0) + 1
        if len(came.differences) < KEPT:
            came.differences.append(found)

    def on_extra(_data: object, path: Any, _kind: int) -> None:
        came.extras += 1
        if len(came.extra) < KEPT:
            came.extra.append(text(path))

    def on_compared(_data: object, _path: Any, kind: int, size: int) -> None:
        came.directories += kind == lib.VEXO_DIRECTORY
        came.files += kind != lib.VEXO_DIRECTORY
        came.bytes += size

    calls.set("lost", on_lost)
    calls.set("extra", on_extra)
    calls.set("left_over", lambda _data, path: came.left_over.append(text(path)))
    calls.set("compared", on_compared)
    failure = Failure()
    options = ffi.new("VexoComparisonOptions *", {"data": data, "times": times})
    with serial:
        result = lib.vexo_compare(one, other, options, calls.record, failure.record)
    calls.finish()
    check(result, failure, "compare", first, second)
    if calls.cancelled:
        raise error_of(0xA600, 0, "", "compare", first, second, Cancelled)
    return came


def rename(source: PathLike, destination: PathLike, *, replace: bool = False) -> None:
    """Gives an entry another name on its volume, with what is kept for it. What a rename that was stopped has begun is
    finished first. Both directories are read for that.

    replace  what stands there goes, with what is kept for it, where the kernel replaces it

    Raises Exists, NotFound, Denied; an Error with errno EXDEV for a name on another volume, where move() helps; and
    Incomplete where the entry has its name and something that is kept for it could not follow: once this process has
    ended, the next one that does something in the directory finishes that.

    >>> open("before", "w").close()
    >>> rename("before", "after")
    """
    calls = Calls()
    problems: List[Error] = []

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = _problem(problem, text(path), None)
        if error is not None:
            problems.append(error)

    calls.set("failed", on_failed)
    failure = Failure()
    with serial:
        result = lib.vexo_rename(path_bytes(source), path_bytes(destination), int(replace), calls.record,
                                 failure.record)
    calls.finish()
    check(result, failure, "rename", source, destination)
    if problems:
        first = problems[0]
        raise error_of(first.code, first.errno or 0, first.strerror or "", "rename", source, destination, Incomplete)


def _remove(path: PathLike, flags: int, doing: str, cancel: Optional[Callable[[], object]],
            on_entry: Optional[Callable[[str], object]]) -> Removal:
    calls = Calls(cancel)
    came = Removal(os.fsdecode(path))

    def on_removed(_data: object, place: Any, status: int, problem: Any) -> None:
        shown = text(place)
        came.removed += status == lib.VEXO_DONE
        error = _problem(problem, shown, None)
        if status == lib.VEXO_FAILED:
            came.failed += 1
            if len(came.failures) < KEPT:
                came.failures.append(error or error_of(0, 0, "", "", shown))
        elif status == lib.VEXO_DONE and on_entry is not None:
            on_entry(shown)

    calls.set("removed", on_removed)
    failure = Failure()
    with serial:
        result = lib.vexo_remove(path_bytes(path), flags, calls.record, failure.record)
    calls.finish()
    check(result, failure, doing, path)
    if calls.cancelled:
        raise error_of(0xA600, 0, "", doing, path, None, Cancelled)
    if came.failed == 1 and came.removed == 0:
        only = came.failures[0]
        only.doing = doing
        only.about(path, None)
        raise only
    if came.failed > 0:
        first = came.failures[0]
        raise error_of(first.code, first.errno or 0, f"{came.failed} not removed, the first: {first}", doing, path,
                       None, Incomplete)
    return came


def remove(path: PathLike, *, missing_ok: bool = False) -> Removal:
    """Removes a file, link or special file with everything that is kept for it, as os.remove does.

    missing_ok  what is not there is no failure (what an earlier removal has left of it goes all the same)

    Raises NotFound, IsDirectory, Denied or another Error.

    >>> open("waste", "w").close()
    >>> remove("waste").removed
    1
    """
    return _remove(path, lib.VEXO_REMOVE_MISSING if missing_ok else 0, "remove", None, None)


def rmtree(path: PathLike, *, missing_ok: bool = False, cancel: Optional[Callable[[], object]] = None,
           on_entry: Optional[Callable[[str], object]] = None) -> Removal:
    """Removes a directory with everything in it, as shutil.rmtree does. No link is followed.

    on_entry  called with the path of each entry that has gone

    What cannot be removed does not keep the rest from going: Incomplete is raised at the end. Raises NotFound,
    NotDirectory, Denied, Cancelled or another Error.

    >>> import os
    >>> os.makedirs("old/older")
    >>> rmtree("old").removed
    2
    """
    try:
        if not _is_directory(path_bytes(path), os.lstat, "rmtree", path):
            raise error_of(0xA000, 0, "is not a directory", "rmtree", path, None, NotDirectory)
    except NotFound:
        pass  # which the removal tells, unless something is left of it
    return _remove(path, lib.VEXO_REMOVE_TREE | (lib.VEXO_REMOVE_MISSING if missing_ok else 0), "rmtree", cancel,
                   on_entry)


def relocate(source: PathLike, destination: PathLike, *, keep_source: bool = False, accept: Accept = (),
             specials: bool = False, progress: Optional[Callable[[int], object]] = None,
             cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Brings a whole directory to the path `destination`, put there at once or not at all.

    It is copied into a private directory beside the destination, compared, and takes its place; WHAT STOOD THERE IS
    REMOVED WITH EVERYTHING IN IT. The source goes then, each entry if it still is what was compared. The same call again
    finishes one that was stopped.

    keep_source  the source stays
    accept       classes of losses for which the source does not have to stay

    Raises Incomplete where the copy is in place and something is not as asked for: lost on the way (the source stays
    then), or not removed. With any other Error, and with Cancelled, source and destination are as they were unless it
    says otherwise.

    >>> import os
    >>> os.makedirs("share/docs")
    >>> relocate("share", "moved").complete, os.listdir("moved"), os.path.exists("share")
    (True, ['docs'], False)
    """
    given, to = path_bytes(source), path_bytes(destination)
    calls = _Run(cancel, progress)
    receipt = Receipt("relocate", os.fsdecode(given), os.fsdecode(to))

    def on_lost(_data: object, one: Any, other: Any, record: Any) -> None:
        receipt._add_loss(Difference(text(one), text(other), _loss(record)))

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = _problem(problem, text(path), None)
        if error is not None:
            receipt._add_failure(error)

    calls.set("lost", on_lost)
    calls.set("failed", on_failed)
    failure, came = Failure(), ffi.new("VexoRelocation *")
    flags = (lib.VEXO_KEEP_SOURCE if keep_source else 0) | (lib.VEXO_MAKE_SPECIALS if specials else 0)
    with serial:
        result = lib.vexo_relocate(given, to, flags, _loss_bits(accept), calls.record, came, failure.record)
    check(result, failure, "relocate", source, destination)
    if came.end == lib.VEXO_RELOCATED:
        calls.finish()
        receipt.directories = 1
        return receipt
    if came.end == lib.VEXO_RELOCATION_CANCELLED:
        return _settle(receipt, calls, "relocate", 0)
    calls.finish()
    said = {
        lib.VEXO_RELOCATION_INCOMPLETE: f"the copy is in place; {came.missing} not in it as in the source, which stays",
        lib.VEXO_SOURCE_REMAINS: "the copy is in place; the source could not be removed entirely",
        lib.VEXO_OLD_REMAINS: "the copy is in place; what stood there before could not be removed entirely",
    }.get(came.end)
    error = (error_of(0, 0, said, "relocate", source, destination, Incomplete)
             if said is not None else failure_error(came.problem, "relocate", source, destination))
    aside = text(came.aside)
    if aside:
        error.strerror = f"{error.strerror}; what is left of the old one is in {aside}"
    if came.again:
        error.strerror = f"{error.strerror}; the same call again goes on from here"
    error.receipt = receipt
    raise error
