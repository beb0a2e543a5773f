"""Copies, moves, renames and deletes files and trees without losing anything that belongs to a file.

    import vexofileop

    receipt = vexofileop.copytree("/volume1/photo", "/volume2/photo")
    vexofileop.attributes("/volume1/photo/a.jpg")["user.comment"] = b"sunset"

Paths are str, bytes or path objects, and come back as str (os.fsdecode). Failures are raised as Error, which is an
OSError with code and help. Calls run one at a time in a process, also those of several threads, for the umask and the
effective user that they change for moments are the process's. Help is in docs/python.md.
"""
from ._errors import (Cancelled, Denied, Error, Exists, Explanation, Incomplete, IsDirectory, NotDirectory, NotFound,
                      SameFile, explain)
from ._options import Filters, LossClass, loss_classes
from ._services import (Indexing, archive_bit, clear_archive_bit, clones_are_enabled, copy_data, enable_clones,
                        fat_name, index_is_needed, indexed_path, indexing, notify, set_archive_bit)
from ._store import Attributes, ResourceFork, attributes, finder_info, open_resource_fork, set_finder_info
from ._stores import (Conversion, ConversionReport, Finding, StoreReport, check_stores, convert_stores, repair_stores,
                      undo_repair)
from ._transfer import (Comparison, Difference, Entry, Loss, Plan, Receipt, Removal, Room, backup_run, compare, copy, copy_tree,
                        copytree, mirror, move, plan, relocate, remove, rename, rmtree)

__all__ = [
    "Attributes", "Cancelled", "Comparison", "Conversion", "ConversionReport", "Denied", "Difference", "Entry",
    "Error", "Exists", "Explanation", "Filters", "Finding", "Incomplete", "Indexing", "IsDirectory", "Loss",
    "LossClass", "NotDirectory", "NotFound", "Plan", "Receipt", "Removal", "ResourceFork", "Room", "SameFile",
    "StoreReport", "archive_bit", "attributes", "backup_run", "check_stores", "clear_archive_bit",
    "clones_are_enabled", "compare", "convert_stores", "copy", "copy_data", "copy_tree", "copytree", "enable_clones",
    "explain", "fat_name", "finder_info", "index_is_needed", "indexed_path", "indexing", "loss_classes", "mirror",
    "move", "notify", "open_resource_fork", "plan", "relocate", "remove", "rename", "repair_stores", "rmtree",
    "set_archive_bit", "set_finder_info", "undo_repair",
]

# As they are named where they are raised and caught.
for _one in (Error, NotFound, Exists, Denied, IsDirectory, NotDirectory, SameFile, Incomplete, Cancelled):
    _one.__module__ = __name__
