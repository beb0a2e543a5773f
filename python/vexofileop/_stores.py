"""The stores of whole volumes: what is wrong with them, its mending, their conversion in place."""
import dataclasses
import os
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Tuple

from ._errors import Cancelled, Error, Incomplete, error_of
from ._library import Calls, Failure, PathLike, check, check_callable, ffi, lib, path_bytes, serial, text, words
from ._options import Accept, loss_bits
from ._transfer import KEPT, Difference, Loss, listed, loss_of, problem_of

FORMS = ("native", "eadir", "double", "fileea")
_STATES = ("found", "mended", "left")
_CONVERSIONS = ("converted", "convertible", "left")


class Finding(NamedTuple):
    """Something that is wrong with a store.

    name     of its kind, which does not change: "store-orphan", "store-value-cut"; `vexofileop explain` has it in words
    place    the store file, directory or attribute
    file     that it is kept for; None: none, or not one
    belongs  of an orphan: the file that it may belong to now
    detail   in words
    remedy   what repair_stores() does about it; None: nothing, for that would take a guess
    state    "found", "mended" or "left"
    reason   of one that was left although there is a remedy
    """

    name: str
    place: str
    file: Optional[str]
    belongs: Optional[str]
    detail: str
    remedy: Optional[str]
    state: str
    reason: Optional[str]


class Conversion(NamedTuple):
    """What became of the store of `file`: `state` is "converted", "convertible" (dry_run) or "left", with a reason."""

    file: str
    source_form: str
    form: str
    state: str
    reason: Optional[str]
    losses: Tuple[Loss, ...]


@dataclasses.dataclass
class StoreReport:
    """What a check or a repair has found. True where nothing is wrong any more.

    directories, stores  so many were looked into
    findings             the first KEPT of them; `found` counts all, `mended` those that are mended
    troubles             what could not be looked into
    quarantine           where the originals are, of a repair that has changed something
    """

    path: str
    directories: int = 0
    stores: int = 0
    findings: List[Finding] = dataclasses.field(default_factory=list)
    found: int = 0
    mended: int = 0
    troubles: List[Error] = dataclasses.field(default_factory=list)
    quarantine: Optional[str] = None

    def __bool__(self) -> bool:
        return self.found == self.mended and not self.troubles


@dataclasses.dataclass
class ConversionReport:
    """What a conversion has done: the first KEPT stores, and how many were converted, could be, and are left."""

    path: str
    form: str
    directories: int = 0
    stores: int = 0
    conversions: List[Conversion] = dataclasses.field(default_factory=list)
    converted: int = 0
    convertible: int = 0
    left: int = 0
    losses: Dict[str, int] = dataclasses.field(default_factory=dict)
    troubles: List[Error] = dataclasses.field(default_factory=list)

    def __bool__(self) -> bool:
        return self.left == 0 and not self.troubles


def _flags(recursive: bool, one_file_system: bool, dry_run: bool = False) -> int:
    return int((lib.VEXO_STORES_RECURSIVE if recursive else 0) |
               (lib.VEXO_STORES_ONE_VOLUME if one_file_system else 0) | (lib.VEXO_STORES_DRY_RUN if dry_run else 0))


def _calls(troubles: List[Error], cancel: Optional[Callable[[], object]]) -> Calls:
    calls = Calls(cancel)

    def on_failed(_data: object, path: Any, problem: Any) -> None:
        error = problem_of(problem, text(path), None)
        if error is not None:
            troubles.append(error)

    calls.set("failed", on_failed)
    return calls


def _survey(doing: str, path: PathLike, flags: int, quarantine: Optional[PathLike],
            on_finding: Optional[Callable[[Finding], object]], cancel: Optional[Callable[[], object]]) -> StoreReport:
    check_callable(on_finding, "on_finding")
    report = StoreReport(os.fsdecode(path_bytes(path)))
    calls = _calls(report.troubles, cancel)

    def on_found(_data: object, record: Any) -> None:
        finding = Finding(words(record.name), text(record.place), text(record.file) or None,
                          text(record.belongs) or None, words(record.detail), words(record.remedy) or None,
                          _STATES[record.state], words(record.reason) or None)
        report.found += 1
        report.mended += finding.state == "mended"
        if len(report.findings) < KEPT:
            report.findings.append(finding)
        if on_finding is not None:
            on_finding(finding)

    calls.set("finding", on_found)
    failure, came = Failure(), ffi.new("VexoSurveyed *")
    kept = ffi.NULL if quarantine is None else path_bytes(quarantine)
    with serial:
        result = lib.vexo_check_stores(path_bytes(path), flags, kept, calls.record, came, failure.record)
    report.directories, report.stores = came.directories, came.stores
    if quarantine is not None and came.quarantined:
        report.quarantine = os.path.abspath(os.fsdecode(quarantine))
    _end(calls, result, failure, doing, path)
    return report


def _end(calls: Calls, result: int, failure: Failure, doing: str, path: PathLike) -> None:
    calls.finish()
    check(result, failure, doing, path)
    if calls.cancelled:
        raise error_of(0xA600, 0, "", doing, path, None, Cancelled)


def check_stores(path: PathLike, *, recursive: bool = False, one_file_system: bool = False,
                 on_finding: Optional[Callable[[Finding], object]] = None,
                 cancel: Optional[Callable[[], object]] = None) -> StoreReport:
    """Looks for what is wrong with what is kept for a file, or for a directory and all that lies in it.

    recursive        what lies below the directory, too; one_file_system: but not other volumes that are mounted there
    on_finding       called with each Finding

    Returns a StoreReport, which is true where nothing is wrong. Changes nothing. Raises NotFound, Cancelled or another
    Error where nothing could be looked at.

    >>> open("sound", "w").close()
    >>> bool(check_stores(".", recursive=True))
    True
    """
    return _survey("check the stores of", path, _flags(recursive, one_file_system), None, on_finding, cancel)


def repair_stores(path: PathLike, quarantine: PathLike, *, recursive: bool = False, one_file_system: bool = False,
                  on_finding: Optional[Callable[[Finding], object]] = None,
                  cancel: Optional[Callable[[], object]] = None) -> StoreReport:
    """Mends what check_stores() finds, as far as that takes no guess.

    quarantine  where the original of everything goes before it is changed: a directory, which is made with the first of
                them. It stays until somebody removes it, and undo_repair() puts back what is in it

    Returns a StoreReport, which is true where nothing is wrong any more. Raises as check_stores() does.

    >>> import os
    >>> os.makedirs("share/@eaDir")
    >>> report = repair_stores("share", "originals")
    >>> report.mended, report.findings[0].name, os.path.exists("share/@eaDir"), bool(report)
    (1, 'store-empty', False, True)
    >>> undo_repair("originals")
    1
    """
    return _survey("repair the stores of", path, _flags(recursive, one_file_system), quarantine, on_finding, cancel)


def undo_repair(quarantine: PathLike, *, cancel: Optional[Callable[[], object]] = None) -> int:
    """Puts back what a repair has changed, the last change first. What was changed since stays as it is now.

    Returns how many were put back; what was so already is not counted. Raises Incomplete where some have changed since,
    and an Error for a directory that is no quarantine. The quarantine stays.

    >>> import os
    >>> os.makedirs("share/@eaDir")
    >>> repair_stores("share", "originals").mended
    1
    >>> undo_repair("originals"), os.path.exists("share/@eaDir"), os.path.exists("originals")
    (1, True, True)
    """
    calls = Calls(cancel)
    restored = 0
    left: List[Error] = []

    def on_undone(_data: object, place: Any, status: int, problem: Any) -> None:
        nonlocal restored
        restored += status == lib.VEXO_DONE
        error = problem_of(problem, text(place), None)
        if error is not None:
            left.append(error)

    calls.set("removed", on_undone)
    failure = Failure()
    with serial:
        result = lib.vexo_undo_repair(path_bytes(quarantine), calls.record, failure.record)
    _end(calls, result, failure, "undo the repair in", quarantine)
    if left:
        raise listed(error_of(0, 0, f"{len(left)} left, the first: {left[0]}", "undo the repair in", quarantine, None,
                              Incomplete), left)
    return restored


def convert_stores(path: PathLike, form: str, *, recursive: bool = False, one_file_system: bool = False,
                   accept: Accept = (), dry_run: bool = False,
                   on_store: Optional[Callable[[Conversion], object]] = None,
                   cancel: Optional[Callable[[], object]] = None) -> ConversionReport:
    """Brings stores into the form that another kind of volume has, where they are: for a volume whose kind changes.

    form     "native", "eadir", "double" or "fileea"
    accept   classes of losses (see loss_classes()) that a store may be converted with; else it is left
    dry_run  only tell what would be done, and lost

    The old form of a store goes when the new one reads the same. Killed anywhere, the same call again finishes. Returns
    a ConversionReport, which is true where nothing is left as it was. Raises Incomplete, a shutil.Error with its list of
    tuples, where something is, but for a dry run; ValueError for another form; Cancelled or another Error.

    >>> import vexofileop
    >>> open("file", "w").close()
    >>> vexofileop.attributes("file")["user.comment"] = b"kept"
    >>> convert_stores("file", "eadir", dry_run=True).left
    0
    """
    if form not in FORMS:
        raise ValueError(f"form is one of {', '.join(FORMS)}, not {form!r}")
    check_callable(on_store, "on_store")
    report = ConversionReport(os.fsdecode(path_bytes(path)), form)
    calls = _calls(report.troubles, cancel)
    kept: List[Difference] = []

    def on_converted(_data: object, record: Any) -> None:
        losses = tuple(loss_of(record.losses[at]) for at in range(record.loss_count))
        told = Conversion(text(record.file), words(record.source_form), words(record.form),
                          _CONVERSIONS[record.state], words(record.reason) or None, losses)
        setattr(report, told.state, getattr(report, told.state) + 1)
        for loss in losses:
            report.losses[loss.name] = report.losses.get(loss.name, 0) + 1
        if len(report.conversions) < KEPT:
            report.conversions.append(told)
        if told.state == "left" and len(kept) < KEPT:
            kept.append(Difference(told.file, told.file, Loss("", told.reason or "left", False, True)))
        if on_store is not None:
            on_store(told)

    calls.set("converted", on_converted)
    failure, came = Failure(), ffi.new("VexoSurveyed *")
    with serial:
        result = lib.vexo_convert_stores(path_bytes(path), form.encode(), _flags(recursive, one_file_system, dry_run),
                                         loss_bits(accept), calls.record, came, failure.record)
    report.directories, report.stores = came.directories, came.stores
    _end(calls, result, failure, "convert the stores of", path)
    if not report and not dry_run:
        told = f"{report.left} left, {len(report.troubles)} could not be looked into"
        raise listed(error_of(0, 0, told, "convert the stores of", path, None, Incomplete), report.troubles, kept)
    return report
