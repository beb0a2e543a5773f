"""Directories that are brought up to date as a whole: mirrors, and backups by the archive bit."""
import os
import resource

from kit import Case, vexofileop


class Mirror(Case):
    def setUp(self):
        super().setUp()
        self.write("album/a", "new")
        self.write("album/in/b", "b")
        self.write("copy/a", "old!")
        self.write("copy/gone/c", "c")
        self.write("copy/d", "d")

    def test_makes_a_directory_equal_to_another(self):
        entries, gone = [], []
        receipt = vexofileop.mirror("album", "copy", on_entry=entries.append, on_removed=gone.append)
        self.assertEqual((2, 2, 3, True), (receipt.files, receipt.directories, receipt.removed, receipt.complete))
        self.assertTrue(vexofileop.compare("album", "copy").same)
        self.assertEqual(["copy/d", "copy/gone", "copy/gone/c"],
                         sorted(os.path.relpath(path, self.top) for path in gone))
        self.assertEqual(4, len(entries))
        again = vexofileop.mirror("album", "copy")
        self.assertEqual((2, 0, 0), (again.same, again.files, again.removed))
        self.assertEqual(2, vexofileop.mirror("album", "new", jobs=2).files)
        self.assertTrue(vexofileop.compare("album", "new").same)

    def test_clears_what_stands_in_the_way(self):
        self.write("copy/in", "a file where a directory comes")
        os.remove("copy/a")
        self.write("copy/a/deep", "a directory where a file comes")
        receipt = vexofileop.mirror("album", "copy")
        self.assertEqual((0, True), (receipt.failed, receipt.complete))
        self.assertTrue(vexofileop.compare("album", "copy").same)

    def test_takes_along_what_is_kept_and_keeps_what_goes(self):
        self.need_root()
        vexofileop.attributes("album/a")["user.comment"] = b"new"
        vexofileop.attributes("copy/d")["user.comment"] = b"old"
        receipt = vexofileop.mirror("album", "copy", backup_dir=os.path.join(self.top, "kept"))
        self.assertEqual((3, 2), (receipt.backups, receipt.removed - 1))
        self.assertEqual(("old!", "c", b"old"), (self.read("kept/a"), self.read("kept/gone/c"),
                                                 vexofileop.attributes("kept/d")["user.comment"]))
        self.assertEqual(b"new", vexofileop.attributes("copy/a")["user.comment"])
        self.assertTrue(vexofileop.compare("album", "copy").same)
        self.store_is_sound("copy")

    def test_removes_nothing_where_something_was_not_copied(self):
        self.write("album/large", "x" * 100_000)
        before = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (50_000, before[1]))
        try:
            error = self.raises(vexofileop.Incomplete, vexofileop.mirror, "album", "copy")
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, before)
        self.assertEqual((1, 0, "d"), (error.receipt.failed, error.receipt.removed, self.read("copy/d")), error)
        os.remove("copy/a")
        os.mkdir("copy/a")
        self.mount("copy/a/mounted", "tmpfs")
        error = self.raises(vexofileop.Incomplete, vexofileop.mirror, "album", "copy")
        self.assertEqual((0, "d"), (error.receipt.removed, self.read("copy/d")), error)
        self.assertIn("nothing else is removed", str(error))
        error = self.raises(vexofileop.Cancelled, vexofileop.mirror, "album", "copy", cancel=lambda: True)
        self.assertEqual((0, "d"), (error.receipt.removed, self.read("copy/d")))

        def fail(_entry):
            raise LookupError("enough")

        self.raises(LookupError, vexofileop.mirror, "album", "copy", on_entry=fail)
        self.assertEqual("d", self.read("copy/d"))

    def test_removes_no_more_than_allowed(self):
        error = self.raises(vexofileop.Incomplete, vexofileop.mirror, "album", "copy", max_delete=2)
        self.assertEqual((2, 1), (error.receipt.removed, error.receipt.left))
        self.assertIn("1 not removed, for max_delete is 2", str(error))
        self.assertEqual(1, vexofileop.mirror("album", "copy", max_delete=1).removed)

    def test_refuses_what_would_lose_everything(self):
        os.mkdir("empty")
        error = self.raises(vexofileop.Error, vexofileop.mirror, "empty", "copy")
        self.assertIn("empty", str(error))
        self.raises(vexofileop.Error, vexofileop.mirror, "album", "album/in")
        self.raises(vexofileop.Error, vexofileop.mirror, "album", "album")
        os.symlink("album", "link")
        self.raises(vexofileop.Error, vexofileop.mirror, "album", "link")
        self.raises(vexofileop.NotFound, vexofileop.mirror, "none", "copy")
        self.raises(vexofileop.NotDirectory, vexofileop.mirror, "album/a", "copy")
        self.raises(vexofileop.NotDirectory, vexofileop.mirror, "album", "copy/d")
        self.raises(vexofileop.Error, vexofileop.mirror, "album", "copy", backup_dir=os.path.join(self.top, "album/in"))
        self.raises(ValueError, vexofileop.mirror, "album", "copy", max_delete=-1)
        self.assertEqual("d", self.read("copy/d"))
        self.assertEqual(4, vexofileop.mirror("empty", "copy", allow_empty=True).removed)

    def test_leaves_what_is_left_out(self):
        asked = []

        def ignore(directory, names):
            asked.append((os.path.relpath(directory, self.top), sorted(names)))
            return [name for name in names if name in ("in", "gone")]

        receipt = vexofileop.mirror("album", "copy", ignore=ignore)
        self.assertEqual((1, ["a", "gone", "gone/c"]), (receipt.removed, self.names("copy")))
        self.assertIn(("album", ["a", "d", "gone", "in"]), asked)
        self.write("copy/d")
        vexofileop.mirror("album", "copy", filters=["- /in/", "- /gone/"])
        self.assertEqual(["a", "gone", "gone/c"], self.names("copy"))
        vexofileop.mirror("album", "copy", filters=["- /in/", "- /gone/"], delete_excluded=True)
        self.assertEqual(["a"], self.names("copy"))


class Backup(Case):
    def setUp(self):
        super().setUp()
        self.need_root()
        for name in ("a", "in/b", "in/c"):
            self.write("album/" + name, name)
            vexofileop.clear_archive_bit("album/" + name)

    def lines(self, receipt):
        """What the list says became of which entry."""
        with open(receipt.list_path, encoding="utf-8") as file:
            return {line.split("\t")[2].strip(): line.split("\t")[0] for line in file if not line.startswith("#")}

    def test_takes_what_has_changed_and_clears_its_bits(self):
        vexofileop.set_archive_bit("album/in/c")
        receipt = vexofileop.backup_run("album", "backup", full=True)
        self.assertEqual((3, 1, 0), (receipt.files, receipt.bits_cleared, receipt.bits_kept))
        self.assertEqual({"a": "copied", "in/b": "copied", "in/c": "copied"}, self.lines(receipt))
        self.assertTrue(vexofileop.compare("album", "backup").same)
        self.write("album/in/b", "changed")
        vexofileop.set_archive_bit("album/in/b")
        os.remove("album/a")
        entries = []
        receipt = vexofileop.backup_run("album", "backup", jobs=2, on_entry=entries.append)
        self.assertEqual((1, 1), (receipt.files, receipt.bits_cleared))
        self.assertEqual(({"in/b": "copied"}, "changed", "a"),
                         (self.lines(receipt), self.read("backup/in/b"), self.read("backup/a")))
        self.assertFalse(vexofileop.archive_bit("album/in/b"))
        self.assertIn(os.path.join(self.top, "album/in/b"), [entry.source for entry in entries])
        self.assertEqual(0, vexofileop.backup_run("album", "backup").files)

    def test_keeps_the_bits_on_request_and_of_what_did_not_arrive(self):
        vexofileop.set_archive_bit("album/a")
        vexofileop.set_archive_bit("album/in/b")
        self.assertEqual(0, vexofileop.backup_run("album", "backup", keep_bits=True).bits_cleared)
        self.write("album/a", "changed")
        os.remove("backup/a")
        self.mount("backup/a", "tmpfs")
        error = self.raises(vexofileop.Incomplete, vexofileop.backup_run, "album", "backup")
        self.assertEqual((1, 1, {"in/b": "same"}),
                         (error.receipt.failed, error.receipt.bits_cleared, self.lines(error.receipt)))
        self.assertEqual((True, False), (vexofileop.archive_bit("album/a"), vexofileop.archive_bit("album/in/b")))

    def test_clears_none_that_changed_meanwhile(self):
        vexofileop.set_archive_bit("album/a")

        def change(entry):
            if entry.kind == "directory":
                self.write("album/a", "changed meanwhile")

        receipt = vexofileop.backup_run("album", "backup", on_entry=change)
        self.assertEqual((0, 1, True), (receipt.bits_cleared, receipt.bits_kept, vexofileop.archive_bit("album/a")))

    def test_leaves_out_and_keeps_what_is_asked(self):
        vexofileop.backup_run("album", "backup", full=True)
        for name in ("a", "in/b"):
            self.write("album/" + name, "changed")
            vexofileop.set_archive_bit("album/" + name)
        receipt = vexofileop.backup_run("album", "backup", filters="- /in/", backup=".1")
        self.assertEqual((1, 1, "a", "in/b"), (receipt.files, receipt.backups, self.read("backup/a.1"),
                                               self.read("backup/in/b")))
        self.assertTrue(vexofileop.archive_bit("album/in/b"))

    def test_refuses_what_it_cannot_keep(self):
        self.raises(vexofileop.Error, vexofileop.backup_run, "album", "album/in")
        self.raises(ValueError, vexofileop.backup_run, "album", "backup", sync="none")
        self.raises(vexofileop.Error, vexofileop.backup_run, "album", "backup", full=True,
                    filters=vexofileop.Filters(archive_bit=True))
        self.raises(vexofileop.NotFound, vexofileop.backup_run, "none", "backup")
        place = self.mount("ramfs", "ramfs")
        self.write("ramfs/a")
        error = self.raises(vexofileop.Error, vexofileop.backup_run, place, "backup")
        self.assertIn("keeps no archive bits", str(error))
        self.assertFalse(os.path.exists("backup"))
        self.assertEqual(1, vexofileop.backup_run(place, "backup", full=True).files)
