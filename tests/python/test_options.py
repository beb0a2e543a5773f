"""The options of copies, moves, plans and comparisons that go beyond what shutil has."""
import datetime
import os
import pickle
import shutil
import subprocess
import sys
import threading
import time

from kit import APPLE_DOUBLE, Case, vexofileop


class Kept(Case):
    def test_keeps_what_is_replaced(self):
        self.write("new", "new")
        self.write("place/new", "old")
        entries = []
        receipt = vexofileop.copy("new", "place", existing="replace", backup=True, on_entry=entries.append)
        self.assertEqual((1, "new", "old"), (receipt.backups, self.read("place/new"), self.read("place/new~")))
        self.assertEqual([os.path.join(self.top, "place/new~")], [entry.backup for entry in entries])
        self.write("new", "newer")
        self.assertEqual([os.path.join(self.top, "place/.old/new.1")],
                         [entry.backup for entry in vexofileop.plan("new", "place", existing="replace", backup=".1",
                                                                    backup_dir=".old").entries])
        vexofileop.move("new", "place", existing="replace", backup=".1", backup_dir=".old")
        self.assertEqual(("newer", "new"), (self.read("place/new"), self.read("place/.old/new.1")))

    def test_keeps_with_what_belongs_to_it_in_a_tree(self):
        self.need_root()
        self.write("album/a/b", "new")
        self.write("copy/a/b", "old")
        vexofileop.attributes("copy/a/b")["user.comment"] = b"kept"
        receipt = vexofileop.copytree("album", "copy", dirs_exist_ok=True, existing="replace", backup_dir=b"safe")
        self.assertEqual((1, "new", "old"), (receipt.backups, self.read("copy/a/b"), self.read("safe/copy/a/b")))
        self.assertEqual(b"kept", vexofileop.attributes("safe/copy/a/b")["user.comment"])

    def test_refuses_what_makes_no_sense(self):
        self.write("one")
        for wrong in ({"backup": ""}, {"backup": "a/b"}, {"backup": "\0"}, {"backup_dir": ""}, {"names": "short"},
                      {"names": "reversible", "existing": "keep-both"}):
            self.raises(ValueError, vexofileop.copy, "one", "two", **wrong)
        for wrong in ({"max_errors": 0}, {"jobs": 0}, {"jobs": 2, "ignore": lambda directory, names: []},
                      {"filters": vexofileop.Filters(min_size=-1)}, {"filters": vexofileop.Filters(newer_than=1e30)},
                      {"filters": "- a\0b"}, {"copy_function": print}):
            self.raises(ValueError, vexofileop.copytree, self.top, "two", **wrong)
        for wrong in ({"progress": 3}, {"cancel": 3}, {"on_entry": 3}, {"accept": b"all"}, {"retries": "1"},
                      {"backup": 1}, {"bytes_per_second": 1.5}):
            self.raises(TypeError, vexofileop.copy, "one", "two", **wrong)
        for wrong in ({"ignore": 3}, {"jobs": None}, {"filters": 3}, {"filters": [3]},
                      {"filters": vexofileop.Filters(min_size="10K")}, {"filters": vexofileop.Filters(older_than="7d")}):
            self.raises(TypeError, vexofileop.copytree, self.top, "two", **wrong)
        self.raises(ValueError, vexofileop.copy, "one", "two", retries=-1)
        self.raises(TypeError, vexofileop.mirror, self.top, "two", max_delete="1")
        self.raises(TypeError, vexofileop.check_stores, self.top, on_finding=3)
        error = self.raises(vexofileop.Error, vexofileop.copytree, self.top, "two", filters="keep this")
        self.assertEqual(0x0D00, error.code)
        self.assertIn('"keep" begins no rule', str(error))
        self.assertEqual(["one"], self.names())

    def test_writes_into_what_is_replaced(self):
        self.write("new", "new")
        self.write("old", "old")
        os.link("old", "other name")
        entries = []
        vexofileop.copy("new", "old", existing="replace", in_place=True, on_entry=entries.append)
        self.assertEqual(("new", True), (self.read("other name"), entries[0].in_place))
        self.write("new", "newer")
        vexofileop.copy("new", "old", existing="replace", on_entry=entries.append)
        self.assertEqual(("new", False), (self.read("other name"), entries[1].in_place))

    def test_brings_names_back_from_a_volume_that_changes_them(self):
        self.need_root()
        self.write("album/wh?t")
        place = self.of_type("fat", APPLE_DOUBLE)
        receipt = vexofileop.copytree("album", place + "/album", names="reversible", accept="all")
        self.assertTrue(receipt.complete)
        self.assertTrue(vexofileop.compare("album", place + "/album", names="reversible", times=False).losses.keys() <= {"mode"})
        vexofileop.copytree(place + "/album", "back", names="reversible", accept="all")
        self.assertEqual(["wh?t"], [one for one in os.listdir("back") if one != "@eaDir"])


class Chosen(Case):
    def setUp(self):
        super().setUp()
        for name, size, day in (("a.jpg", 10, 1), ("a.bak", 10, 1), ("raw/b.jpg", 2000, 2), ("raw/c.jpg", 20, 3)):
            self.write("album/" + name, "x" * size)
            os.utime("album/" + name, (day * 86400, day * 86400))

    def brought(self, filters):
        """The files of a copy by these, which a plan, a comparison and a move have to agree with."""
        planned = vexofileop.plan("album", "copy", "copytree", filters=filters)
        vexofileop.copytree("album", "copy", filters=filters)
        self.assertTrue(vexofileop.compare("album", "copy", filters=filters).same)
        found = [name for name in self.names("copy") if os.path.isfile("copy/" + name)]
        self.assertEqual(found, sorted(os.path.relpath(entry.source, os.path.join(self.top, "album"))
                                       for entry in planned.entries if entry.kind == "file"))
        shutil.rmtree("copy")
        return found

    def test_by_the_rules_of_rsync(self):
        self.assertEqual(["a.jpg", "raw/b.jpg", "raw/c.jpg"], self.brought("- *.bak"))
        self.assertEqual(["a.jpg", "raw/c.jpg"], self.brought(["- /album/raw/b*", "- *.bak"]))
        self.assertEqual(["a.bak", "raw/b.jpg"], self.brought(vexofileop.Filters(rules=["+ b.jpg", b"- *.jpg"])))

    def test_by_size_and_time(self):
        self.assertEqual(["raw/b.jpg"], self.brought(vexofileop.Filters(min_size=21)))
        self.assertEqual(["a.bak", "a.jpg"], self.brought(vexofileop.Filters(max_size=10)))
        self.assertEqual(["raw/b.jpg", "raw/c.jpg"], self.brought(vexofileop.Filters(newer_than=2 * 86400)))
        second = datetime.datetime.fromtimestamp(2 * 86400 + 0.5, datetime.timezone.utc)
        self.assertEqual(["a.bak", "a.jpg", "raw/b.jpg"], self.brought(vexofileop.Filters(older_than=second)))
        self.assertEqual([], self.brought(vexofileop.Filters(newer_than=time.time())))

    def test_by_the_archive_bit(self):
        self.need_root()
        for name in self.names("album"):
            vexofileop.clear_archive_bit("album/" + name)
        vexofileop.set_archive_bit("album/raw/b.jpg")
        self.assertEqual(["raw/b.jpg"], self.brought(vexofileop.Filters(archive_bit=True)))

    def test_leaves_what_a_move_leaves_out(self):
        vexofileop.move("album", "there", filters="- raw/")
        self.assertEqual((["raw", "raw/b.jpg", "raw/c.jpg"], ["a.bak", "a.jpg"]),
                         (self.names("album"), self.names("there")))

    def test_stays_on_one_volume(self):
        self.need_root()
        os.mkdir("album/other")
        place = self.mount("mounted", "tmpfs")
        subprocess.run(["mount", "--bind", place, "album/other"], check=True)
        self._mounts.append(os.path.join(self.top, "album/other"))
        self.write("mounted/a")
        self.assertNotIn("other/a", self.brought(vexofileop.Filters(one_file_system=True)))
        self.assertIn("other/a", self.brought(vexofileop.Filters()))


class Shared(Case):
    def tree(self, directories=12, files=20):
        for one in range(directories):
            for other in range(files):
                self.write(f"wide/{one}/{other}", str(other))

    def test_among_processes_with_the_same_result(self):
        self.tree()
        entries, done = [], []
        receipt = vexofileop.copytree("wide", "copy", jobs=3, on_entry=entries.append, progress=done.append)
        self.assertEqual((240, 13, 253), (receipt.files, receipt.directories, len(entries)))
        self.assertEqual(receipt.bytes, done[-1])
        self.assertTrue(vexofileop.compare("wide", "copy", jobs=2).same)
        os.remove("copy/3/3")
        self.write("copy/4/more")
        found = vexofileop.compare("wide", "copy", jobs=2)
        self.assertEqual((1, 1), (found.losses["data"], found.extras))
        place = self.mount("other", "tmpfs")
        receipt = vexofileop.move("wide", place, jobs=2)
        self.assertEqual((240, False), (receipt.files, os.path.exists("wide")))
        self.raises(ChildProcessError, os.waitpid, -1, os.WNOHANG)

    def test_among_processes_while_other_threads_work(self):
        self.tree(6)
        over, turns = threading.Event(), [0]

        def work():
            while not over.is_set():
                turns[0] += len([os.stat("wide") for _ in range(50)])

        threads = [threading.Thread(target=work) for _ in range(3)]
        for thread in threads:
            thread.start()
        try:
            for one in range(8):
                self.assertEqual(120, vexofileop.copytree("wide", f"copy{one}", jobs=3).files)
        finally:
            over.set()
            for thread in threads:
                thread.join()
        self.assertGreater(turns[0], 0)

    def test_ends_on_request_and_with_what_a_callback_raises(self):
        self.tree()
        receipt = self.raises(vexofileop.Cancelled, vexofileop.copytree, "wide", "copy", jobs=3,
                              cancel=lambda: True).receipt
        self.assertLess(receipt.files, 240)

        def fail(_entry):
            raise LookupError("enough")

        self.raises(LookupError, vexofileop.copytree, "wide", "other", jobs=3, on_entry=fail)
        self.raises(ChildProcessError, os.waitpid, -1, os.WNOHANG)

    def test_ends_with_control_c(self):
        if os.environ.get("VEXO_SANITIZED"):
            self.skipTest("other processes have no run-time library of the sanitizer")
        self.tree(4, 4)
        program = ("import os, signal, vexofileop\n"
                   "def press(entry):\n"
                   "    os.killpg(0, signal.SIGINT)\n"
                   "try:\n"
                   "    vexofileop.copytree('wide', 'copy', jobs=3, on_entry=press)\n"
                   "except KeyboardInterrupt:\n"
                   "    print('interrupted')\n")
        came = subprocess.run([sys.executable, "-c", program], check=False, capture_output=True, text=True,
                              start_new_session=True)
        self.assertEqual((0, "interrupted\n", ""), (came.returncode, came.stdout, came.stderr))

    def test_ends_at_so_many_errors(self):
        self.tree(2)
        vexofileop.copytree("wide", "copy")
        error = self.raises(vexofileop.Incomplete, vexofileop.copytree, "wide", "copy", dirs_exist_ok=True,
                            max_errors=3)
        self.assertEqual((3, 3), (error.receipt.failed, len(error.args[0])))
        self.assertFalse(error.receipt.cancelled)


class Told(Case):
    def test_what_only_all_names_of_a_file_show(self):
        self.write("album/a")
        os.link("album/a", "album/b")
        planned = vexofileop.plan("album", "copy", "copytree", hard_links=False)
        self.assertEqual(({"hard-link": 1}, True), (planned.losses, planned.complete))
        self.assertEqual({"hard-link": 1}, vexofileop.copytree("album", "copy", hard_links=False).losses)


class AsShutil(Case):
    def test_tells_that_both_are_one_file(self):
        self.write("one")
        os.link("one", "other name")
        os.symlink("one", "link")
        for function, source, destination, options in (
                (vexofileop.copy, "one", "one", {}), (vexofileop.copy, "one", ".", {}),
                (vexofileop.copy, "one", "other name", {"existing": "replace"}),
                (vexofileop.copy, "link", "one", {"existing": "replace"}), (vexofileop.move, "one", "one", {})):
            error = self.raises(shutil.SameFileError, function, source, destination, **options)
            self.assertIsInstance(error, vexofileop.SameFile)
            self.assertIn("same file", str(error))
            self.assertTrue(error.errno)
        self.assertEqual("light", self.read("one"))

    def test_raises_what_is_a_list_of_tuples(self):
        self.write("album/a")
        os.mkfifo("album/queue")
        self.write("copy/a", "other")
        error = self.raises(shutil.Error, vexofileop.copytree, "album", "copy", dirs_exist_ok=True)
        told = {os.path.basename(source): (os.path.relpath(destination, self.top), why)
                for source, destination, why in error.args[0]}
        self.assertEqual({"a", "queue"}, set(told))
        self.assertEqual(("copy/a", "destination exists"), told["a"])
        self.assertIn("named pipe", told["queue"][1])
        again = pickle.loads(pickle.dumps(error))
        self.assertEqual((error.args, error.errno, str(error)), (again.args, again.errno, str(again)))

    def test_takes_the_arguments_of_shutil(self):
        self.write("album/a")
        os.symlink("nowhere", "album/link")
        for number, function in enumerate((shutil.copy2, shutil.copy, vexofileop.copy, None)):
            vexofileop.copytree("album", f"copy{number}", True, None, function, True, False)
            self.assertEqual(["a", "link"], self.names(f"copy{number}"))
        vexofileop.copytree("album", "copy0", symlinks=True, ignore_dangling_symlinks=True, dirs_exist_ok=True,
                            existing="keep")
        self.raises(vexofileop.Exists, vexofileop.copytree, "album", "copy0", True, None, shutil.copy2, False, False)

    def test_gives_ignore_the_paths_that_it_was_given(self):
        self.write("album/2024/a")
        os.symlink("album", "link")
        for given in ("album", "./album/", "../" + os.path.basename(self.top) + "/album", "link",
                      os.path.join(self.top, "album")):
            ours, theirs = [], []
            shutil.copytree(given, "theirs", symlinks=True, ignore=lambda at, names: theirs.append((at, names)) or [])
            vexofileop.copytree(given, "ours", ignore=lambda at, names: ours.append((at, names)) or {"none"})
            self.assertEqual(sorted(theirs), sorted(ours))
            shutil.rmtree("theirs")
            shutil.rmtree("ours")
