"""Copying, moving, renaming, removing, comparing: whole files and trees with everything that belongs to them."""
import dataclasses
import os
import shutil
import stat
from typing import Any, Callable, Dict, Iterable, List, Optional, Set, Tuple, Union

from ._errors import Cancelled, Error, Exists, Incomplete, NotDirectory, NotFound, SameFile, error_of
from ._library import (Calls, Failure, PathLike, check, check_callable, ffi, failure_error, lib, path_bytes, serial,
                       text, words)
from ._options import NAMES, Accept, Filter, Request, choice, class_name, loss_bits, process_count, selection, whole

# So many failed entries and differences are kept one by one; the rest is counted.
KEPT = 10000

Ignore = Callable[[str, List[str]], Iterable[str]]


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
    backup       where what it replaced is kept; None: nowhere
    in_place     what stood there was written into
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
    backup: Optional[str] = None
    in_place: bool = False


@dataclasses.dataclass
class Receipt:
    """What a copy or a move came to. As a path it is its destination: open(vexofileop.copy(a, b)).

    files, directories  so many arrived, links and special files among the files
    bytes               of the files that arrived
    skipped, failed     so many entries were
    same                so many stood there already; of a move their sources are gone
    backups             so many entries that were replaced are kept
    losses              how many of each class, by name, accepted ones among them
    examples            the first loss of each class
    failures            the entries that failed, the first KEPT of them
    removed, left       of a mirror: so many entries went, and are left although the source has not got them
    bits_cleared        of a backup: so many archive bits; `bits_kept` of what was brought stay, since it is being used
    list_path           of a backup: where the list is of what it has brought
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
    backups: int = 0
    cancelled: bool = False
    losses: Dict[str, int] = dataclasses.field(default_factory=dict)
    examples: Dict[str, Difference] = dataclasses.field(default_factory=dict)
    failures: List[Error] = dataclasses.field(default_factory=list)
    left_over: List[str] = dataclasses.field(default_factory=list)
    removed: int = 0
    left: int = 0
    bits_cleared: int = 0
    bits_kept: int = 0
    list_path: Optional[str] = None
    _missing: int = 0
    _notes: List[str] = dataclasses.field(default_factory=list)

    def __fspath__(self) -> str:
        return self.destination

    @property
    def complete(self) -> bool:
        """Everything arrived but what was accepted, and what was to be skipped."""
        return not self.cancelled and self.failed == 0 and self._missing == 0 and not self._notes

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
    _missing: int = 0

    def _add_loss(self, difference: Difference) -> None:
        self.losses[difference.name] = self.losses.get(difference.name, 0) + 1
        self._missing += difference.loss.fails

    def count(self, status: str) -> int:
        """How many entries would be "new", "replace", "merge", "rename", "skip" or "fail"."""
        return sum(entry.status == status for entry in self.entries)

    @property
    def bytes(self) -> int:
        return sum(entry.bytes for entry in self.entries if entry.status not in ("skip", "fail"))

    @property
    def complete(self) -> bool:
        """Whether the run would end without an exception, as far as a plan can tell."""
        return self.count("fail") == 0 and self._missing == 0


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
def loss_of(record: Any) -> Loss:
    return Loss(class_name(record.loss_class), words(record.detail), bool(record.accepted), bool(record.fails))


def problem_of(record: Any, path: str, other: Optional[str]) -> Optional[Error]:
    if record == ffi.NULL:
        return None
    kind = SameFile if record.same_file else None
    return error_of(record.code, record.number, words(record.text), "", path, None if record.of_source else other, kind)


def listed(error: Error, failures: Iterable[Error], losses: Iterable[Difference] = ()) -> Error:
    """The same with what a shutil.Error of a tree has in args[0]."""
    told = [(one.path, one.other, one.strerror) for one in failures]
    told += [(one.source, one.destination, one.loss.detail) for one in losses]
    error.args = (told,)
    return error


def _entry(record: Any) -> Entry:
    source, destination = text(record.source), text(record.destination)
    flags = record.flags
    return Entry(_KINDS[record.kind], _STATUSES[record.status], source, destination, record.bytes,
                 bool(flags & lib.VEXO_ENTRY_CLONED), bool(flags & lib.VEXO_ENTRY_SAME),
                 bool(flags & lib.VEXO_ENTRY_LINKED), bool(flags & lib.VEXO_ENTRY_SOURCE_STAYS),
                 tuple(loss_of(record.losses[at]) for at in range(record.loss_count)),
                 problem_of(record.problem, source, destination), problem_of(record.warning, source, destination),
                 text(record.backup) if record.backup != ffi.NULL else None, bool(flags & lib.VEXO_ENTRY_IN_PLACE))


class _Ignored:
    """What a function like those of shutil.copytree leaves out, asked once for each directory.

    Of a comparison it is asked of the names at both ends, by the path of the first.
    """

    def __init__(self, top: bytes, ignore: Ignore, second: Optional[bytes] = None,
                 told: Optional[bytes] = None, top_is_named: bool = True) -> None:
        check_callable(ignore, "ignore")
        self._top, self._second = os.path.abspath(top), second
        self._told = top if told is None else told  # as shutil does: below the path that was given
        self._ignore, self._top_is_named = ignore, top_is_named
        self._names: Dict[bytes, Set[bytes]] = {}

    def meant(self, path: bytes) -> bool:
        if not self._top_is_named:
            path = b"./" + path
        directory, name = os.path.split(path)
        if not directory:
            return True  # the tree itself
        if directory not in self._names:
            # A walk goes down and comes back: what is neither above nor here is behind it.
            for known in [one for one in self._names if not (directory + b"/").startswith(one + b"/")]:
                del self._names[known]
            below = directory.split(b"/")[1:]
            names = self._ignore(os.fsdecode(os.path.join(self._told, *below)), self._listed(below))
            self._names[directory] = {os.fsencode(one) for one in names}
        return name not in self._names[directory]

    def _listed(self, below: List[bytes]) -> List[str]:
        places = [os.path.join(self._top, *below)]
        if self._second is not None:
            places.append(os.path.join(self._second, *below))
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
        check_callable(progress, "progress")
        self.done = 0
        self.errors = 0
        self.most_errors: Optional[int] = None
        if progress is not None:
            told = progress

            def on_progress(_data: object, more: int) -> None:
                self.done += more
                told(self.done)

            self.set("progress", on_progress)
        if ignored is not None:
            asked = ignored
            self.set("meant", lambda _data, path, _directory: int(asked.meant(ffi.string(path))), 0)

    def asked(self) -> int:
        return 1 if super().asked() or (self.most_errors is not None and self.errors >= self.most_errors) else 0

    def settle(self, result: int, failure: Failure, doing: str, one: PathLike, other: PathLike) -> None:
        """Raises what a call that has no receipt has to raise at its end."""
        self.finish()
        check(result, failure, doing, one, other)
        if self.cancelled:
            raise error_of(0xA600, 0, "", doing, one, other, Cancelled)


def _add(receipt: Receipt, entry: Entry) -> None:
    if entry.status == "done":
        receipt.directories += entry.kind == "directory"
        receipt.files += entry.kind != "directory"
        receipt.bytes += entry.bytes if entry.kind != "directory" and not entry.same else 0
        receipt.same += entry.same
        receipt.cloned += entry.cloned
        receipt.backups += entry.backup is not None
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
    elif receipt.failed == 1 and entries == 1 and receipt.files + receipt.directories == 0 and not receipt._notes:
        error = receipt.failures[0]
        error.doing = doing
        error.about(receipt.source, error.other and receipt.destination)
    else:
        first = receipt.failures[0] if receipt.failures else None
        missing = [one for one in receipt.examples.values() if one.loss.fails]
        told = [f"{receipt.failed} failed, the first: {first}"] if first is not None else []
        told += receipt._notes
        told += [f"{receipt.losses[one.name]} of {one.name} lost, the first: {one}" for one in missing]
        number = (first.errno or 0) if first is not None else 0
        error = listed(error_of(first.code if first is not None else 0, number, "; ".join(told), doing,
                                 receipt.source, receipt.destination, Incomplete), receipt.failures, missing)
    error.receipt = receipt
    raise error


class _Work:
    """What is to be called, and what it has told beside what every copy tells."""

    def call(self, source: bytes, destination: bytes, options: Any, calls: Any, failure: Any) -> int:
        return int(lib.vexo_transfer(source, destination, options, calls, failure))

    def listen(self, calls: _Run, receipt: Receipt) -> None:
        """Sets more callbacks."""

    def end(self, receipt: Receipt) -> None:
        """Adds what came of it."""


def _transfer(request: Request, ignored: Optional[_Ignored], on_entry: Optional[Callable[[Entry], object]],
              progress: Optional[Callable[[int], object]], cancel: Optional[Callable[[], object]],
              work: _Work = _Work()) -> Receipt:
    source, destination = path_bytes(request.source), path_bytes(request.destination)
    check_callable(on_entry, "on_entry")
    options = request.options(on_entry is not None, ignored is not None)
    calls = _Run(cancel, progress, ignored)
    calls.most_errors = request.max_errors
    receipt = Receipt(request.operation, os.fsdecode(source), os.fsdecode(destination))
    if request.into and os.path.isdir(destination):
        receipt.destination = os.fsdecode(os.path.join(destination, os.path.basename(os.path.abspath(source))))
    entries: List[Entry] = []

    def on_told(_data: object, record: Any) -> None:
        entry = _entry(record)
        entries[:] = entries[:1] + [entry] if entries else [entry]
        _add(receipt, entry)
        calls.errors += entry.status == "failed" or any(loss.fails for loss in entry.losses)
        if on_entry is not None:
            on_entry(entry)

    def on_arrived(_data: object, files: int, size: int) -> None:
        receipt.files += files
        receipt.bytes += size

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = problem_of(problem, text(path), None)
        if error is not None:
            receipt._add_failure(error)

    def on_lost(_data: object, one: Any, other: Any, record: Any) -> None:
        receipt._add_loss(Difference(text(one), text(other), loss_of(record)))

    calls.set("entry", on_told)
    calls.set("lost", on_lost)
    calls.set("left_over", lambda _data, path: receipt.left_over.append(text(path)))
    calls.set("arrived", on_arrived)
    calls.set("failed", on_failed)
    work.listen(calls, receipt)
    failure = Failure()
    with serial:
        result = work.call(source, destination, options, calls.record, failure.record)
    if result != 0:
        calls.finish()
        raise failure.error(request.operation, source, destination)
    work.end(receipt)
    if len(entries) == 1 and receipt.files + receipt.directories == 1 and entries[0].destination:
        receipt.destination = entries[0].destination
    return _settle(receipt, calls, request.operation, len(entries))


class _Mirroring(_Work):
    def __init__(self, flags: int, most: int, on_removed: Optional[Callable[[str], object]]) -> None:
        check_callable(on_removed, "on_removed")
        self._flags, self._most, self._on_removed = flags, most, on_removed
        self._came = ffi.new("VexoMirrored *")

    def call(self, source: bytes, destination: bytes, options: Any, calls: Any, failure: Any) -> int:
        return int(lib.vexo_mirror(source, destination, options, self._flags, self._most, calls, self._came, failure))

    def listen(self, calls: _Run, receipt: Receipt) -> None:
        def on_removed(_data: object, place: Any, status: int, problem: Any) -> None:
            shown = text(place)
            if problem != ffi.NULL:
                receipt._add_failure(problem_of(problem, shown, None) or error_of(0, 0, "", "", shown))
            if status == lib.VEXO_DONE:
                receipt.removed += 1
                if self._on_removed is not None:
                    self._on_removed(shown)

        calls.set("removed", on_removed)

    def end(self, receipt: Receipt) -> None:
        receipt.backups += self._came.backups
        receipt.left = self._came.left
        if self._came.nothing_removed:
            receipt._notes.append("nothing else is removed, for not everything was copied")
        if receipt.left:
            receipt._notes.append(f"{receipt.left} not removed, for max_delete is {self._most}")


class _BackingUp(_Work):
    def __init__(self, flags: int) -> None:
        self._flags = flags
        self._came = ffi.new("VexoBackedUp *")

    def call(self, source: bytes, destination: bytes, options: Any, calls: Any, failure: Any) -> int:
        return int(lib.vexo_backup(source, destination, options, self._flags, calls, self._came, failure))

    def end(self, receipt: Receipt) -> None:
        receipt.bits_cleared = self._came.cleared
        receipt.bits_kept = self._came.kept + self._came.failed
        receipt.list_path = text(self._came.list) or None
        refusal = words(self._came.refusal)
        if refusal:
            receipt._notes.append(refusal)


def _is_directory(given: bytes, look: Callable[[bytes], os.stat_result], doing: str, path: PathLike,
                  other: Optional[PathLike] = None) -> bool:
    try:
        return stat.S_ISDIR(look(given).st_mode)
    except OSError as failed:
        raise error_of(0, failed.errno or 0, "", doing, path, other) from None


def copy(source: PathLike, destination: PathLike, *, follow_symlinks: bool = True, existing: str = "fail",
         accept: Accept = (), clone: str = "never", sync: str = "none", verify: bool = False, checksum: bool = False,
         in_place: bool = False, names: str = "plain", backup: Union[bool, str] = False,
         backup_dir: Optional[PathLike] = None, specials: bool = False, retries: int = 0, bytes_per_second: int = 0,
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
    in_place          what is replaced is written into and keeps its other names; what fails then has cost it
    names             "reversible": names that FAT does not take are kept beside the copies, and come back; or "plain"
    backup            keep what is replaced, with what is kept for it: True as "NAME~", or the suffix instead of "~"
    backup_dir        keep it below that directory; a relative one lies beside the destination
    specials          make pipes, devices and sockets anew; else they are a loss
    retries           so many more attempts at what failed for something that may pass
    bytes_per_second  at most; 0: any number
    on_entry          called with the Entry, when it is known what became of it
    progress          called with the bytes that are done so far, after each block
    cancel            asked before each block; true ends the call with Cancelled, and leaves nothing half done

    Returns a Receipt. Raises NotFound, Exists, IsDirectory, Denied, SameFile or another Error; Incomplete where the copy
    is there without something that was not accepted; and what a callback raises, which ends the call as `cancel` does.

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
    >>> with open("original", "w") as file:
    ...     _ = file.write("shade")
    >>> copy("original", "copy", existing="replace", backup=True).backups, open("copy~").read()
    (1, 'light')
    """
    request = Request("copy", source, destination, True, links=not follow_symlinks, existing=existing, accept=accept,
                      clone=clone, sync=sync, verify=verify, checksum=checksum, in_place=in_place, names=names,
                      backup=backup, backup_dir=backup_dir, specials=specials, retries=retries,
                      bytes_per_second=bytes_per_second)
    return _transfer(request, None, on_entry, progress, cancel)


def copytree(source: PathLike, destination: PathLike, symlinks: bool = True, ignore: Optional[Ignore] = None,
             copy_function: Optional[Callable[..., object]] = None, ignore_dangling_symlinks: bool = False,
             dirs_exist_ok: bool = False, *, filters: Optional[Filter] = None, existing: str = "fail",
             accept: Accept = (), clone: str = "never", sync: str = "none", verify: bool = False,
             checksum: bool = False, in_place: bool = False, names: str = "plain", backup: Union[bool, str] = False,
             backup_dir: Optional[PathLike] = None, specials: bool = False, hard_links: bool = True, retries: int = 0,
             max_errors: Optional[int] = None, bytes_per_second: int = 0, jobs: int = 1,
             on_entry: Optional[Callable[[Entry], object]] = None, progress: Optional[Callable[[int], object]] = None,
             cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Copies a directory with everything in it to the path `destination`, as shutil.copytree does.

    symlinks       links stay links; to follow them (False) is not offered, since whoever may write into the tree says
                   where they lead. ignore_dangling_symlinks therefore changes nothing
    ignore         as of shutil.copytree: called with each directory and the names in it, gives those to leave out;
                   shutil.ignore_patterns("*.bak") makes one
    copy_function  shutil.copy, shutil.copy2 or copy of this package, which all come to what is done; ValueError for another
    dirs_exist_ok  merge into a directory that exists; else Exists is raised
    filters        which entries are meant: Filters, or rules for names as rsync has them
    existing       what stands at the destination of a file, as for copy(); also of a directory that exists nothing is
                   replaced unasked
    hard_links     names of one file stay that, where the volume can
    max_errors     end at so many entries that fail, with Incomplete
    jobs           so many processes share the work, where that changes nothing but the order. They are forked from this
                   one and end with the call; without ignore

    The rest is as for copy(); on_entry is called for each entry, without it those that arrived are only counted.
    An entry that fails does not keep the others from being copied: Incomplete is raised at the end, whose receipt says
    which; it is a shutil.Error with the list of tuples of that. The function is there as copy_tree too.

    >>> import os, shutil
    >>> os.makedirs("album/2024")
    >>> for name in "album/list", "album/2024/dawn", "album/2024/dawn.bak":
    ...     open(name, "w").close()
    >>> copytree("album", "backup", ignore=shutil.ignore_patterns("*.bak")).files
    2
    >>> sorted(os.listdir("backup/2024"))
    ['dawn']
    >>> copytree("album", "backup", dirs_exist_ok=True, existing="update", filters="- *.bak").same
    2
    """
    if not symlinks:
        raise ValueError("copytree follows no links: symlinks=True is what it does")
    if copy_function not in (None, copy, shutil.copy, shutil.copy2):
        raise ValueError("copytree copies by itself, with everything that belongs to a file: no copy_function")
    given = told = path_bytes(source)
    if not _is_directory(given, os.stat, "copytree", source, destination):
        raise error_of(0xA000, 0, "the source is not a directory", "copytree", source, destination, NotDirectory)
    if os.path.islink(given.rstrip(b"/")):
        given = os.path.realpath(given)
    if not dirs_exist_ok and os.path.lexists(path_bytes(destination)):
        raise error_of(0xA300, 0, "", "copytree", source, destination, Exists)
    request = Request("copytree", given, destination, False, trees=True, filters=filters, existing=existing,
                      accept=accept, clone=clone, sync=sync, verify=verify, checksum=checksum, in_place=in_place,
                      names=names, backup=backup, backup_dir=backup_dir, specials=specials, hard_links=hard_links,
                      retries=retries, max_errors=max_errors, bytes_per_second=bytes_per_second, jobs=jobs)
    ignored = _Ignored(given, ignore, None, told) if ignore is not None else None
    return _transfer(request, ignored, on_entry, progress, cancel)


copy_tree = copytree


def mirror(source: PathLike, destination: PathLike, *, ignore: Optional[Ignore] = None,
           filters: Optional[Filter] = None, delete_excluded: bool = False, max_delete: Optional[int] = None,
           allow_empty: bool = False, accept: Accept = (), clone: str = "never", sync: str = "none",
           verify: bool = False, checksum: bool = False, names: str = "plain",
           backup: Union[bool, str] = False, backup_dir: Optional[PathLike] = None, specials: bool = False,
           hard_links: bool = True, retries: int = 0, max_errors: Optional[int] = None, bytes_per_second: int = 0,
           jobs: int = 1, on_entry: Optional[Callable[[Entry], object]] = None,
           on_removed: Optional[Callable[[str], object]] = None, progress: Optional[Callable[[int], object]] = None,
           cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Makes the directory `destination` equal to `source`: WHAT IT HAS AND THE SOURCE HAS NOT IS REMOVED.

    It is copied as by copytree() with existing="update" and dirs_exist_ok=True. Then what the source has not goes, only
    when nothing failed to be read or copied; with `backup` or `backup_dir` it is kept, as what is replaced is.

    ignore, filters  what they leave out is not copied, and stays at the destination. The path of a rule begins below the
                     source: "- /raw/"
    delete_excluded  what they leave out by its name is removed, too
    max_delete       remove no more than so many entries: Incomplete is raised where there are more
    allow_empty      go ahead where the source holds nothing at all and everything would go; else an Error is raised
    on_removed       called with the path of each entry that has gone

    The rest is as for copytree(). Returns a Receipt, with `removed`. Raises Incomplete where the two are not equal at the
    end, but for losses that were accepted.

    >>> import os
    >>> os.makedirs("album"); os.makedirs("copy")
    >>> for name in "album/dawn", "copy/dusk":
    ...     open(name, "w").close()
    >>> receipt = mirror("album", "copy")
    >>> receipt.files, receipt.removed, os.listdir("copy")
    (1, 1, ['dawn'])
    """
    most = -1 if max_delete is None else whole(max_delete, "max_delete", 0)
    given, to = _pair("mirror", source, destination)
    request = Request("mirror", given, to, False, trees=True, filters=filters, existing="update", accept=accept,
                      clone=clone, sync=sync, verify=verify, checksum=checksum, names=names, backup=backup,
                      backup_dir=backup_dir, specials=specials, hard_links=hard_links, retries=retries,
                      max_errors=max_errors, bytes_per_second=bytes_per_second, jobs=jobs)
    flags = ((lib.VEXO_MIRROR_LEFT_OUT_TOO if delete_excluded else 0) |
             (lib.VEXO_MIRROR_ALLOW_EMPTY if allow_empty else 0))
    work = _Mirroring(flags, most, on_removed)
    ignored = _Ignored(given, ignore, to, top_is_named=False) if ignore is not None else None
    return _transfer(request, ignored, on_entry, progress, cancel, work)


def backup_run(source: PathLike, destination: PathLike, *, full: bool = False, keep_bits: bool = False,
               ignore: Optional[Ignore] = None, filters: Optional[Filter] = None, accept: Accept = (),
               clone: str = "never", sync: str = "volume", names: str = "plain",
               backup: Union[bool, str] = False, backup_dir: Optional[PathLike] = None, specials: bool = False,
               hard_links: bool = True, retries: int = 0, max_errors: Optional[int] = None, bytes_per_second: int = 0,
               jobs: int = 1, on_entry: Optional[Callable[[Entry], object]] = None,
               progress: Optional[Callable[[int], object]] = None,
               cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Backs up a directory by the archive bit, which clients set of what they change.

    Files that have it are copied into `destination` as by mirror(), but nothing is removed there, and read back; then
    the bit of each goes that is proven to be there and has not changed since. A list beside the destination says what
    went, `list_path` where that is. It can be stopped and run again at any time.

    full       everything, whether it has the bit or not
    keep_bits  clear none: the next backup takes the same, too
    sync       "volume" or "file": a bit that is cleared stays so after a power failure, and so has what it stands for

    The rest is as for mirror(). Returns a Receipt. Raises Incomplete where not all of it is in the destination, or a
    bit could not be cleared; and an Error where the volume keeps no archive bits and it is not to be full.

    >>> import os
    >>> from vexofileop import archive_bit, set_archive_bit
    >>> os.mkdir("album")
    >>> for name in "album/dawn", "album/dusk":
    ...     open(name, "w").close()
    >>> backup_run("album", "backup", full=True).files
    2
    >>> set_archive_bit("album/dusk")
    >>> receipt = backup_run("album", "backup")
    >>> receipt.files + receipt.same, receipt.bits_cleared, archive_bit("album/dusk")
    (1, 1, False)
    """
    if sync not in ("volume", "file"):
        raise ValueError(f"sync is one of volume, file, not {sync!r}")
    given, to = _pair("backup_run", source, destination)
    request = Request("backup_run", given, to, False, trees=True, filters=filters, existing="update", accept=accept,
                      clone=clone, sync=sync, names=names, backup=backup, backup_dir=backup_dir, specials=specials,
                      hard_links=hard_links, retries=retries, max_errors=max_errors,
                      bytes_per_second=bytes_per_second, jobs=jobs)
    flags = (lib.VEXO_BACKUP_FULL if full else 0) | (lib.VEXO_BACKUP_KEEP_BITS if keep_bits else 0)
    ignored = _Ignored(given, ignore, to, top_is_named=False) if ignore is not None else None
    return _transfer(request, ignored, on_entry, progress, cancel, _BackingUp(flags))


def _pair(doing: str, source: PathLike, destination: PathLike) -> Tuple[bytes, bytes]:
    """A directory, and one that is there or not."""
    given, to = path_bytes(source), path_bytes(destination)
    for path in (given, to) if os.path.lexists(to) else (given,):
        if not _is_directory(path, os.stat, doing, source, destination):
            which = "source" if path is given else "destination"
            raise error_of(0xA000, 0, f"the {which} is not a directory", doing, source, destination, NotDirectory)
    return given, to


def move(source: PathLike, destination: PathLike, *, filters: Optional[Filter] = None, existing: str = "fail",
         accept: Accept = (), sync: str = "none", verify: bool = False, checksum: bool = False, in_place: bool = False,
         names: str = "plain", backup: Union[bool, str] = False, backup_dir: Optional[PathLike] = None,
         specials: bool = False, retries: int = 0, max_errors: Optional[int] = None, bytes_per_second: int = 0,
         jobs: int = 1, on_entry: Optional[Callable[[Entry], object]] = None,
         progress: Optional[Callable[[int], object]] = None,
         cancel: Optional[Callable[[], object]] = None) -> Receipt:
    """Moves a file, link or directory to a path or into a directory that exists, as shutil.move does.

    Within a volume it is renamed. To another one it is copied and compared, and the source goes last, if nothing was
    lost that was not accepted and it still is what was copied; else it stays, `sources_kept` counts it, and Incomplete is
    raised. The options are those of copytree(); directories are merged into. What filters leave out stays where it is.

    >>> with open("draft", "w") as file:
    ...     _ = file.write("text")
    >>> receipt = move("draft", "final")
    >>> import os
    >>> os.path.exists("draft"), open("final").read()
    (False, 'text')
    """
    request = Request("move", source, destination, True, trees=True, links=True, filters=filters, existing=existing,
                      accept=accept, sync=sync, verify=verify, checksum=checksum, in_place=in_place, names=names,
                      backup=backup, backup_dir=backup_dir, specials=specials, retries=retries, max_errors=max_errors,
                      bytes_per_second=bytes_per_second, jobs=jobs)
    return _transfer(request, None, on_entry, progress, cancel)


def plan(source: PathLike, destination: PathLike, operation: str = "copy", *, ignore: Optional[Ignore] = None,
         filters: Optional[Filter] = None, existing: str = "fail", accept: Accept = (), clone: str = "never",
         checksum: bool = False, in_place: bool = False, names: str = "plain", backup: Union[bool, str] = False,
         backup_dir: Optional[PathLike] = None, specials: bool = False, hard_links: bool = True, probe: bool = True,
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
    request = Request(operation, given, to, operation != "copytree", trees=operation != "copy",
                      links=operation != "copy", filters=filters, existing=existing, accept=accept, clone=clone,
                      checksum=checksum, in_place=in_place, names=names, backup=backup, backup_dir=backup_dir,
                      specials=specials, hard_links=hard_links, probe=probe)
    options = request.options(True)
    calls = _Run(cancel, None, _Ignored(given, ignore) if ignore is not None else None)
    planned = Plan(operation, os.fsdecode(given), os.fsdecode(to))

    def on_entry(_data: object, record: Any) -> None:
        entry = _entry(record)
        planned.entries.append(entry)
        for loss in entry.losses:
            planned._add_loss(Difference(entry.source, entry.destination, loss))

    def known(number: int) -> Optional[int]:
        return None if number < 0 else number

    def on_room(_data: object, record: Any) -> None:
        planned.rooms.append(Room(text(record.directory), record.bytes_needed, record.inodes_needed,
                                  known(record.bytes_free), known(record.inodes_free),
                                  known(record.quota_bytes_free), known(record.quota_inodes_free),
                                  bool(record.probed)))

    def on_lost(_data: object, one: Any, other: Any, record: Any) -> None:
        planned._add_loss(Difference(text(one), text(other), loss_of(record)))

    calls.set("entry", on_entry)
    calls.set("lost", on_lost)
    calls.set("room", on_room)
    failure = Failure()
    with serial:
        result = lib.vexo_plan(given, to, options, calls.record, failure.record)
    calls.settle(result, failure, "plan", source, destination)
    return planned


def compare(first: PathLike, second: PathLike, *, data: bool = True, times: bool = True,
            ignore: Optional[Ignore] = None, filters: Optional[Filter] = None, names: str = "plain", jobs: int = 1,
            progress: Optional[Callable[[int], object]] = None,
            cancel: Optional[Callable[[], object]] = None) -> Comparison:
    """What `second` lacks of `first` or has otherwise, two files or two trees, whatever their volumes keep it in.

    data    content is read; False: sizes are compared
    times   modification and creation times count
    ignore  as of copytree(), with the names at both: they are passed over; filters: the same
    names   "reversible": an entry is looked for under what the second calls it, as copy() has made it
    jobs    so many processes share the work, as of copytree()

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
        found = Difference(text(source), text(destination), loss_of(record))
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
    kept: List[Any] = []
    options = ffi.new("VexoComparisonOptions *", {
        "data": data, "times": times, "reversible_names": choice(NAMES, names, "names"),
        "jobs": process_count(jobs, ignore is not None), "selection": selection(filters, kept)})
    with serial:
        result = lib.vexo_compare(one, other, options, calls.record, failure.record)
    calls.settle(result, failure, "compare", first, second)
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
        error = problem_of(problem, text(path), None)
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
        raise listed(error_of(first.code, first.errno or 0, first.strerror or "", "rename", source, destination,
                               Incomplete), problems)


def _remove(path: PathLike, flags: int, doing: str, cancel: Optional[Callable[[], object]],
            on_entry: Optional[Callable[[str], object]]) -> Removal:
    check_callable(on_entry, "on_entry")
    calls = Calls(cancel)
    came = Removal(os.fsdecode(path))

    def on_removed(_data: object, place: Any, status: int, problem: Any) -> None:
        shown = text(place)
        came.removed += status == lib.VEXO_DONE
        error = problem_of(problem, shown, None)
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
        raise listed(error_of(first.code, first.errno or 0, f"{came.failed} not removed, the first: {first}", doing,
                               path, None, Incomplete), came.failures)
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
        receipt._add_loss(Difference(text(one), text(other), loss_of(record)))

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = problem_of(problem, text(path), None)
        if error is not None:
            receipt._add_failure(error)

    calls.set("lost", on_lost)
    calls.set("failed", on_failed)
    failure, came = Failure(), ffi.new("VexoRelocation *")
    flags = (lib.VEXO_KEEP_SOURCE if keep_source else 0) | (lib.VEXO_MAKE_SPECIALS if specials else 0)
    with serial:
        result = lib.vexo_relocate(given, to, flags, loss_bits(accept), calls.record, came, failure.record)
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
    error = (listed(error_of(0, 0, said, "relocate", source, destination, Incomplete), receipt.failures,
                     [one for one in receipt.examples.values() if one.loss.fails])
             if said is not None else failure_error(came.problem, "relocate", source, destination))
    aside = text(came.aside)
    if aside:
        error.strerror = f"{error.strerror}; what is left of the old one is in {aside}"
    if came.again:
        error.strerror = f"{error.strerror}; the same call again goes on from here"
    error.receipt = receipt
    raise error
