"""Whole trees: copytree, relocate, plan, compare."""
import errno
import os
import shutil
import subprocess
import threading

from kit import Case, vexofileop


class CopyTree(Case):
    def tree(self):
        self.write("album/list", "who")
        self.write("album/2024/dawn", "light")
        self.write("album/2024/dawn.bak", "old")
        self.write("album/2025/noon", "bright")
        os.symlink("list", "album/link")

    def test_copies_what_shutil_would_and_its_metadata(self):
        self.need_root()
        self.tree()
        vexofileop.attributes("album/2024")["user.comment"] = b"kept"
        receipt = vexofileop.copytree("album", "backup")
        self.assertEqual((5, 3, 17, True), (receipt.files, receipt.directories, receipt.bytes, receipt.complete))
        self.assertEqual("list", os.readlink("backup/link"))
        self.assertEqual(b"kept", vexofileop.attributes("backup/2024")["user.comment"])
        shutil.copytree("album", "theirs", symlinks=True, ignore=shutil.ignore_patterns("@eaDir"))
        self.assertEqual(self.names("theirs"), self.names("backup"))
        self.assertIs(vexofileop.copytree, vexofileop.copy_tree)

    def test_asks_ignore_as_shutil_does(self):
        self.tree()
        ours, theirs = [], []

        def recording(asked):
            def ignore(directory, names):
                asked.append((os.path.relpath(directory, self.top), sorted(names)))
                return [name for name in names if name.endswith(".bak") or name == "2025"]
            return ignore

        shutil.copytree("album", "theirs", symlinks=True, ignore=recording(theirs))
        receipt = vexofileop.copytree("album", "ours", ignore=recording(ours))
        self.assertEqual(sorted(theirs), sorted(ours))
        self.assertEqual(self.names("theirs"), self.names("ours"))
        self.assertEqual((3, 0), (receipt.files, receipt.failed))
        patterns = shutil.ignore_patterns("*.bak", "2025")
        self.assertEqual(3, vexofileop.copytree("album", "patterns", ignore=patterns).files)

    def test_asks_ignore_once_for_each_of_many_directories(self):
        for one in ("a", "ab", "b"):
            for other in ("x", "xy"):
                for name in ("1", "2.bak", "z/3"):
                    self.write(f"wide/{one}/{other}/{name}")
        asked = []

        def ignore(directory, names):
            asked.append(os.path.relpath(directory, self.top))
            return [name for name in names if name.endswith(".bak")]

        os.symlink("wide", "link")
        self.assertEqual(12, vexofileop.copytree("link", "copy", ignore=ignore).files)
        self.assertEqual(sorted({"link"} | {"link/" + name for name in self.names("wide")
                                            if os.path.isdir("wide/" + name)}), sorted(asked))

    def test_ends_with_what_ignore_raises(self):
        self.tree()

        def fail(_directory, _names):
            raise LookupError("no list of names")

        self.raises(LookupError, vexofileop.copytree, "album", "backup", ignore=fail)

    def test_merges_only_when_asked(self):
        self.tree()
        vexofileop.copytree("album", "backup")
        error = self.raises(vexofileop.Exists, vexofileop.copytree, "album", "backup")
        self.assertEqual("album", error.path)
        error = self.raises(vexofileop.Incomplete, vexofileop.copytree, "album", "backup", dirs_exist_ok=True)
        self.assertEqual((5, 0xA300), (error.receipt.failed, error.receipt.failures[0].code))
        self.write("album/list", "changed")
        receipt = vexofileop.copytree("album", "backup", dirs_exist_ok=True, existing="update")
        self.assertEqual((4, 1, "changed"), (receipt.same, receipt.files, self.read("backup/list")))

    def test_refuses_what_it_does_not_do(self):
        self.tree()
        self.raises(ValueError, vexofileop.copytree, "album", "backup", symlinks=False)
        self.raises(vexofileop.NotDirectory, vexofileop.copytree, "album/list", "backup")
        self.raises(vexofileop.NotFound, vexofileop.copytree, "none", "backup")
        self.raises(vexofileop.Error, vexofileop.copytree, "album", "album/2024/inside", dirs_exist_ok=True)
        self.raises(ValueError, vexofileop.plan, "album", "backup", "mirror")
        self.assertFalse(os.path.exists("backup"))

    def test_copies_the_rest_where_an_entry_cannot_be(self):
        self.tree()
        os.mkfifo("album/queue")
        entries = []
        error = self.raises(vexofileop.Incomplete, vexofileop.copytree, "album", "backup", on_entry=entries.append)
        self.assertEqual({"special-file": 1}, error.receipt.losses)
        self.assertIn("queue", str(error))
        self.assertEqual(5, error.receipt.files)
        told = {os.path.relpath(entry.source, self.top): entry for entry in entries}
        self.assertEqual(("skipped", "other"), (told["album/queue"].status, told["album/queue"].kind))
        self.assertEqual("special-file", told["album/queue"].losses[0].name)
        self.assertEqual(("done", "link"), (told["album/link"].status, told["album/link"].kind))
        self.assertEqual("directory", told["album"].kind)
        self.assertTrue(vexofileop.copytree("album", "again", specials=True).complete)

    def test_counts_the_same_with_and_without_a_look_at_each(self):
        self.tree()
        plain = vexofileop.copytree("album", "plain")
        looked = vexofileop.copytree("album", "looked", on_entry=lambda entry: None)
        self.assertEqual((plain.files, plain.directories, plain.bytes),
                         (looked.files, looked.directories, looked.bytes))

    def test_ends_with_what_on_entry_raises(self):
        self.tree()

        def fail(_entry):
            raise LookupError("enough")

        self.raises(LookupError, vexofileop.copytree, "album", "backup", on_entry=fail)
        self.assertLess(len(self.names("backup")), 7)

    def test_goes_as_deep_as_there_is_room_on_any_thread(self):
        depth, name = 200 if os.environ.get("VEXO_SANITIZED") else 1500, "d" * 30  # levels take more room there
        os.mkdir("deep")
        at = os.open("deep", os.O_RDONLY)
        for _ in range(depth):
            os.mkdir(name, dir_fd=at)
            below = os.open(name, os.O_RDONLY, dir_fd=at)
            os.close(at)
            at = below
        os.close(at)
        came = []
        thread = threading.Thread(target=lambda: came.append(vexofileop.copytree("deep", "thread")))
        thread.start()
        thread.join()
        came.append(vexofileop.copytree("deep", "main"))
        self.assertEqual([depth + 1] * 2, [receipt.directories for receipt in came])
        self.assertTrue(vexofileop.compare("deep", "thread"))
        with self.assertRaises(OSError) as caught:  # by a path of its directory, which is too long for that
            vexofileop.copytree("deep", "ignored", ignore=lambda directory, names: [])
        self.assertEqual(errno.ENAMETOOLONG, caught.exception.errno)
        for name in ("deep", "thread", "main", "ignored"):
            vexofileop.rmtree(name)
        self.assertEqual([], self.names())

    def test_reaches_real_volumes_and_back(self):
        self.need_root()
        self.tree()
        vexofileop.attributes("album/list")["user.comment"] = b"kept"
        vexofileop.set_finder_info("album/list", b"TEXTttxt" + bytes(24))
        with vexofileop.open_resource_fork("album/list", "wb") as fork:
            fork.write(b"fork")
        for kind in ("ext4", "btrfs", "xfs"):
            with self.subTest(kind):
                place = self.mount(kind, kind)
                vexofileop.copytree("album", place + "/album")
                self.assertTrue(vexofileop.compare("album", place + "/album"))
                self.assertEqual(b"kept", vexofileop.attributes(place + "/album/list")["user.comment"])
                with vexofileop.open_resource_fork(place + "/album/list") as fork:
                    self.assertEqual(b"fork", fork.read())
                vexofileop.copytree(place + "/album", kind + "-back")
                self.assertTrue(vexofileop.compare("album", kind + "-back"))


class Relocate(Case):
    def test_replaces_what_stood_there_and_removes_the_source(self):
        self.need_root()
        self.write("share/docs/a")
        self.write("old/gone")
        receipt = vexofileop.relocate("share", "old")
        self.assertTrue(receipt.complete)
        self.assertEqual(["old", "old/docs", "old/docs/a"], self.names())

    def test_keeps_the_source_on_request_and_for_losses(self):
        self.need_root()
        self.write("share/a")
        vexofileop.relocate("share", "kept", keep_source=True)
        self.assertTrue(vexofileop.compare("share", "kept"))
        os.mkfifo("share/queue")
        error = self.raises(vexofileop.Incomplete, vexofileop.relocate, "share", "there")
        self.assertEqual({"special-file": 1}, error.receipt.losses)
        self.assertTrue(os.path.exists("share/a"))
        self.assertTrue(os.path.exists("there/a"))

    def test_leaves_everything_where_it_is_stopped_or_refused(self):
        self.need_root()
        self.write("share/a")
        self.write("old/b")
        self.raises(vexofileop.Cancelled, vexofileop.relocate, "share", "old", cancel=lambda: True)
        self.raises(vexofileop.Error, vexofileop.relocate, "share", "share/inside")
        self.raises(vexofileop.Error, vexofileop.relocate, "none", "old")
        self.assertEqual(["old", "old/b", "share", "share/a"], self.names())


class Plan(Case):
    def test_tells_and_does_nothing(self):
        self.write("album/a", "1")
        self.write("album/b", "22")
        self.write("backup/a", "0")
        before = os.stat("backup").st_mtime_ns
        planned = vexofileop.plan("album", "backup", "copytree", existing="replace")
        told = {os.path.basename(entry.source): entry.status for entry in planned.entries}
        self.assertEqual({"a": "replace", "b": "new", "album": "merge"}, told)
        self.assertEqual((3, True), (planned.bytes, planned.complete))
        self.assertEqual(("0", before), (self.read("backup/a"), os.stat("backup").st_mtime_ns))
        self.assertTrue(all(room.suffices for room in planned.rooms))
        refused = vexofileop.plan("album", "backup", "copytree")
        self.assertEqual((1, False), (refused.count("fail"), refused.complete))
        failed = next(entry for entry in refused.entries if entry.status == "fail")
        self.assertEqual(0xA300, failed.error.code)

    def test_agrees_with_the_run(self):
        place = self.mount("plain", "ramfs")
        self.write("album/a")
        subprocess.run(["setfacl", "-m", "u:1234:rw", "album/a"], check=True)
        planned = vexofileop.plan("album", place + "/album", "copytree")
        error = self.raises(vexofileop.Incomplete, vexofileop.copytree, "album", place + "/album")
        self.assertEqual(planned.losses, error.receipt.losses)
        self.assertFalse(planned.complete)

    def test_leaves_out_what_is_ignored_and_ends_on_request(self):
        self.write("album/a")
        self.write("album/b")
        planned = vexofileop.plan("album", "backup", "copytree", ignore=shutil.ignore_patterns("b"))
        self.assertEqual(["a", "album"], sorted(os.path.basename(entry.source) for entry in planned.entries))
        self.raises(vexofileop.Cancelled, vexofileop.plan, "album", "backup", "move", cancel=lambda: True)

    def test_knows_a_volume_without_room(self):
        place = self.mount("small", "tmpfs", "-o", "size=256k")
        with open("large", "wb") as file:
            file.write(b"x" * (1 << 20))
        planned = vexofileop.plan("large", place)
        self.assertFalse(planned.complete and all(room.suffices for room in planned.rooms))


class Compare(Case):
    def test_finds_each_difference_and_what_only_one_has(self):
        self.write("one/a", "1")
        self.write("one/b", "2")
        self.write("one/c", "3")
        vexofileop.copytree("one", "other")
        self.assertTrue(vexofileop.compare("one", "other"))
        os.remove("other/a")
        os.chmod("other/b", 0o600)
        self.write("other/more")
        found = vexofileop.compare("one", "other")
        told = {(os.path.basename(one.source), one.name) for one in found.differences}
        self.assertTrue({("a", "data"), ("b", "mode")} <= told, told)
        self.assertEqual(["more"], [os.path.basename(path) for path in found.extra])
        self.assertEqual((False, len(found.differences), 1), (found.same, found.differing, found.extras))
        self.assertIn("(mode)", str(next(one for one in found.differences if one.name == "mode")))

    def test_compares_content_and_times_as_asked(self):
        self.write("one", "1")
        self.write("other", "2")
        os.utime("one", ns=(1, 1))
        os.utime("other", ns=(1, 1))
        self.assertIn("data", vexofileop.compare("one", "other").losses)
        self.assertNotIn("data", vexofileop.compare("one", "other", data=False).losses)
        os.utime("other", ns=(2_000_000_000, 2_000_000_000))
        self.assertIn("modification-time", vexofileop.compare("one", "other").losses)
        self.assertNotIn("modification-time", vexofileop.compare("one", "other", times=False).losses)

    def test_passes_over_what_is_ignored(self):
        self.write("one/a")
        self.write("one/a.bak")
        self.write("other/b.bak")
        vexofileop.copy("one/a", "other")
        found = vexofileop.compare("one", "other", times=False, ignore=shutil.ignore_patterns("*.bak"))
        self.assertEqual(([], []), (found.differences, found.extra))

    def test_tells_what_cannot_be_looked_at(self):
        self.write("one")
        error = self.raises(vexofileop.NotFound, vexofileop.compare, "one", "none")
        self.assertEqual(("one", "none"), (error.path, error.other))
        self.write("two/a")
        self.write("three/a")
        self.raises(vexofileop.Cancelled, vexofileop.compare, "two", "three", cancel=lambda: True)
