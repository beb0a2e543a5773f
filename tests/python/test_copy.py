"""Single files: copy, move, rename, remove."""
import errno
import os
import signal
import subprocess
import threading

from kit import Case, vexofileop


class Copy(Case):
    def test_brings_everything_and_tells_it(self):
        self.need_root()
        self.write("original", "light")
        os.chown("original", 1234, 4321)
        os.chmod("original", 0o4751)
        os.utime("original", ns=(1_000_000_001, 2_000_000_002))
        vexofileop.attributes("original")["user.comment"] = b"a\0b"
        vexofileop.set_finder_info("original", b"TEXTttxt" + bytes(24))
        receipt = vexofileop.copy("original", "copy")
        self.assertEqual((1, 5, {}, True), (receipt.files, receipt.bytes, receipt.losses, receipt.complete))
        found = os.stat("copy")
        self.assertEqual((0o104751, 1234, 4321, 2_000_000_002),
                         (found.st_mode, found.st_uid, found.st_gid, found.st_mtime_ns))
        self.assertEqual(b"a\0b", vexofileop.attributes("copy")["user.comment"])
        self.assertEqual(b"TEXTttxt", vexofileop.finder_info("copy")[:8])
        self.assertTrue(vexofileop.compare("original", "copy"))

    def test_replaces_nothing_unasked(self):
        one, other = self.write("one", "1"), self.write("other", "2")
        error = self.raises(vexofileop.Exists, vexofileop.copy, one, other)
        self.assertIsInstance(error, FileExistsError)
        self.assertEqual((0xA300, errno.EEXIST, one, other), (error.code, error.errno, error.path, error.other))
        self.assertEqual((one, other), (error.filename, error.filename2))
        self.assertIn("existing=", error.help)
        self.assertEqual(1, error.receipt.failed)
        self.assertEqual("2", self.read("other"))

    def test_does_with_an_existing_one_what_is_asked(self):
        self.write("one", "1")
        self.write("other", "2")
        kept = vexofileop.copy("one", "other", existing="keep")
        self.assertEqual((1, 0, "2"), (kept.skipped, kept.files, self.read("other")))
        both = vexofileop.copy("one", "other", existing="keep-both")
        self.assertTrue(both.destination.endswith("other (1)"))
        self.assertEqual(("2", "1"), (self.read("other"), self.read(both)))
        vexofileop.copy("one", "other", existing="replace")
        self.assertEqual("1", self.read("other"))
        self.assertEqual(1, vexofileop.copy("one", "other", existing="update").same)
        with self.assertRaisesRegex(ValueError, "existing is one of"):
            vexofileop.copy("one", "other", existing="overwrite")

    def test_goes_into_a_directory_and_names_the_place(self):
        self.write("original")
        os.mkdir("into")
        receipt = vexofileop.copy("original", "into")
        self.assertEqual("light", open(receipt, encoding="utf-8").read())
        self.assertTrue(receipt.destination.endswith("into/original"))
        self.raises(vexofileop.NotFound, vexofileop.copy, "original", "missing/")
        self.raises(vexofileop.NotDirectory, vexofileop.copy, "original", "original/")

    def test_tells_what_is_missing_or_no_file(self):
        os.mkdir("directory")
        self.raises(FileNotFoundError, vexofileop.copy, "none", "copy")
        self.write("original")
        self.raises(FileNotFoundError, vexofileop.copy, "original", "none/copy")
        error = self.raises(vexofileop.Error, vexofileop.copy, "directory", "copy")
        self.assertIsInstance(error, IsADirectoryError)
        self.assertEqual(["directory", "original"], self.names())

    def test_refuses_paths_that_are_none(self):
        for path in ("", "a\0b", b"", b"a\0b"):
            self.raises(ValueError, vexofileop.copy, path, "copy")
            self.raises(ValueError, vexofileop.copy, "original", path)
        self.raises(TypeError, vexofileop.copy, 3, "copy")
        self.raises(vexofileop.Error, vexofileop.move, "/", "copy")

    def test_takes_names_of_any_bytes(self):
        name = os.fsencode(self.top) + b"/line\nfeed \xff\x1b[1m"
        self.write(name)
        receipt = vexofileop.copy(name, name + b" copy")
        self.assertEqual(os.fsdecode(name + b" copy"), receipt.destination)
        self.assertTrue(os.path.exists(name + b" copy"))
        error = self.raises(vexofileop.Exists, vexofileop.copy, name, name + b" copy")
        self.assertEqual(os.fsdecode(name), error.path)
        self.assertNotIn("\n", str(error))
        self.assertNotIn("\x1b", str(error))
        str(error).encode("utf-8")

    def test_follows_a_link_or_copies_it(self):
        self.write("original")
        os.symlink("original", "link")
        vexofileop.copy("link", "followed")
        vexofileop.copy("link", "kept", follow_symlinks=False)
        self.assertFalse(os.path.islink("followed"))
        self.assertEqual("original", os.readlink("kept"))

    def test_tells_progress_and_stops_on_request(self):
        with open("large", "wb") as file:
            file.write(b"x" * (24 << 20))
        done = []
        vexofileop.copy("large", "copy", progress=done.append)
        self.assertEqual((24 << 20, sorted(done)), (done[-1], done))
        self.assertGreater(len(done), 1)
        error = self.raises(vexofileop.Cancelled, vexofileop.copy, "large", "stopped", cancel=lambda: True)
        self.assertEqual((0xA600, True), (error.code, error.receipt.cancelled))
        self.assertEqual(["copy", "large"], self.names())

    def test_ends_with_what_a_callback_raises(self):
        with open("large", "wb") as file:
            file.write(b"x" * (24 << 20))

        def fail(*_):
            raise LookupError("the window was closed")

        for callback in ("progress", "cancel"):
            with self.assertRaisesRegex(LookupError, "window"):
                vexofileop.copy("large", "copy", **{callback: fail})
        self.assertEqual(["large"], self.names())

    def test_ends_with_control_c(self):
        with open("large", "wb") as file:
            file.write(b"x" * (24 << 20))
        before = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, before)
        with self.assertRaises(KeyboardInterrupt):
            vexofileop.copy("large", "copy", progress=lambda done: signal.raise_signal(signal.SIGINT))
        self.assertEqual(["large"], self.names())

    def test_runs_from_a_callback_and_from_several_threads(self):
        self.write("original")
        inner = []

        def again(_done):
            if not inner:
                inner.append(vexofileop.copy("original", "inner"))

        vexofileop.copy("original", "outer", progress=again)
        self.assertEqual("light", self.read(inner[0]))
        threads = [threading.Thread(target=lambda at=at: [vexofileop.copy("original", f"{at}.{n}") for n in range(20)])
                   for at in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(80, len([name for name in self.names() if "." in name]))

    def test_keeps_the_old_file_where_there_is_no_room(self):
        place = self.mount("small", "tmpfs", "-o", "size=256k")
        with open("large", "wb") as file:
            file.write(b"x" * (1 << 20))
        old = self.write("small/old", "the only one")
        error = self.raises(vexofileop.Error, vexofileop.copy, "large", old, existing="replace")
        self.assertEqual((0x2900, errno.ENOSPC), (error.code, error.errno))
        self.assertEqual(("the only one", ["old"]), (self.read(old), self.names(place)))

    def test_tells_a_read_only_volume(self):
        place = self.mount("fixed", "tmpfs")
        self.write("original")
        subprocess.run(["mount", "-o", "remount,ro", place], check=True)
        error = self.raises(vexofileop.Error, vexofileop.copy, "original", place)
        self.assertEqual(errno.EROFS, error.errno)
        subprocess.run(["setfacl", "-m", "u:1234:rw", "original"], check=True)
        error = self.raises(vexofileop.Error, vexofileop.copy, "original", place)
        self.assertEqual((0x8400, errno.EROFS), (error.code, error.errno))

    def test_raises_what_was_lost_unless_it_is_accepted(self):
        place = self.mount("plain", "ramfs")
        self.write("original")
        subprocess.run(["setfacl", "-m", "u:1234:rw", "original"], check=True)
        error = self.raises(vexofileop.Incomplete, vexofileop.copy, "original", place)
        self.assertIn("acl-access", error.receipt.losses)
        self.assertEqual("light", self.read("plain/original"))
        self.assertIn("acl-access", str(error))
        receipt = vexofileop.copy("original", place, existing="replace", accept=["acl", *error.receipt.losses])
        self.assertTrue(receipt.complete)
        self.assertEqual(error.receipt.losses, receipt.losses)
        with self.assertRaisesRegex(ValueError, "no class of losses"):
            vexofileop.copy("original", place, accept="acls")

    def test_verifies_syncs_and_paces(self):
        self.write("original")
        receipt = vexofileop.copy("original", "copy", verify=True, sync="file", bytes_per_second=1 << 20, retries=1,
                                  clone="automatic")
        self.assertTrue(receipt.complete)
        self.raises(ValueError, vexofileop.copy, "original", "again", checksum=True)
        self.raises(ValueError, vexofileop.copy, "original", "again", bytes_per_second=-1)
        self.assertEqual(["copy", "original"], self.names())


class Killed(Case):
    """A process that dies in the middle, and the same once more."""

    def kill_during(self, work):
        child = os.fork()
        if child == 0:
            try:
                work(lambda *_: os.kill(os.getpid(), signal.SIGKILL))
            finally:
                os._exit(1)
        _, status = os.waitpid(child, 0)
        self.assertEqual(signal.SIGKILL, os.WTERMSIG(status))

    def test_copy_keeps_the_old_file_and_the_next_one_tidies_up(self):
        with open("large", "wb") as file:
            file.write(b"x" * (24 << 20))
        self.write("old", "the only one")
        self.kill_during(lambda kill: vexofileop.copy("large", "old", existing="replace", progress=kill))
        self.assertEqual("the only one", self.read("old"))
        self.assertEqual(3, len(self.names()), self.names())
        receipt = vexofileop.copy("large", "old", existing="replace")
        self.assertEqual((["large", "old"], []), (self.names(), receipt.left_over))
        self.assertTrue(vexofileop.compare("large", "old"))

    def test_copy_of_another_machine_may_not_be_over(self):
        with open("large", "wb") as file:
            file.write(b"x" * (24 << 20))
        os.mkdir("into")
        self.kill_during(lambda kill: vexofileop.copy("large", "into", progress=kill))
        left, = os.listdir("into")
        parts = left.split("-")
        parts[3], parts[5] = ("0" * (len(one) - 1) + "7" for one in (parts[3], parts[5]))
        other = "-".join(parts)
        os.rename(f"into/{left}", f"into/{other}")
        receipt = vexofileop.copy("large", "into")
        self.assertEqual(([f"{self.top}/into/{other}"], sorted([other, "large"])),
                         (receipt.left_over, sorted(os.listdir("into"))))

    def test_move_of_a_tree_is_finished_by_the_next_one(self):
        place = self.mount("other", "tmpfs")
        for at in range(9):
            self.write(f"tree/{at}", str(at))
            vexofileop.attributes(f"tree/{at}")["user.at"] = b"%d" % at
        seen = []

        def entry(kill):
            return lambda entry: (seen.append(entry), len(seen) > 4 and kill())

        self.kill_during(lambda kill: vexofileop.move("tree", place, on_entry=entry(kill)))
        left = len(self.names("tree"))
        self.assertTrue(0 < left < 9, left)
        vexofileop.move("tree", place, existing="update")
        self.assertFalse(os.path.exists("tree"))
        for at in range(9):
            self.assertEqual((str(at), b"%d" % at), (self.read(f"other/tree/{at}"),
                                                     vexofileop.attributes(f"{place}/tree/{at}")["user.at"]))

    def test_lock_of_the_package_is_not_inherited(self):
        self.write("original")
        started, go = threading.Event(), threading.Event()

        def hold(_done):
            started.set()
            go.wait(600)

        thread = threading.Thread(target=lambda: vexofileop.copy("original", "held", progress=hold))
        thread.start()
        self.assertTrue(started.wait(600))
        child = os.fork()
        if child == 0:
            signal.alarm(600)
            vexofileop.copy("original", "inner")
            os._exit(0)
        _, status = os.waitpid(child, 0)
        go.set()
        thread.join()
        self.assertEqual((0, ["held", "inner", "original"]), (status, self.names()))


class Move(Case):
    def test_renames_within_a_volume(self):
        self.need_root()
        self.write("draft")
        vexofileop.attributes("draft")["user.comment"] = b"kept"
        number = os.stat("draft").st_ino
        receipt = vexofileop.move("draft", "final")
        self.assertEqual((1, number), (receipt.files, os.stat("final").st_ino))
        self.assertEqual(b"kept", vexofileop.attributes("final")["user.comment"])
        self.assertEqual(["final"], self.names())

    def test_copies_to_another_volume_and_removes_last(self):
        place = self.mount("other", "tmpfs")
        self.write("tree/a/b", "1")
        self.write("tree/c", "22")
        os.link("tree/c", "tree/d")
        vexofileop.attributes("tree/c")["user.comment"] = b"kept"
        receipt = vexofileop.move("tree", place)
        self.assertEqual((True, 3), (receipt.complete, receipt.files))
        self.assertEqual(["a", "a/b", "c", "d"], self.names(place + "/tree"))
        self.assertEqual(os.stat(place + "/tree/c").st_ino, os.stat(place + "/tree/d").st_ino)
        self.assertEqual(b"kept", vexofileop.attributes(place + "/tree/c")["user.comment"])
        self.assertFalse(os.path.exists("tree"))

    def test_leaves_a_source_of_which_something_was_lost(self):
        place = self.mount("plain", "ramfs")
        self.write("original")
        subprocess.run(["setfacl", "-m", "u:1234:rw", "original"], check=True)
        error = self.raises(vexofileop.Incomplete, vexofileop.move, "original", place)
        self.assertEqual(1, error.receipt.sources_kept)
        self.assertTrue(os.path.exists("original"))


class Rename(Case):
    def test_takes_along_what_is_kept(self):
        self.need_root()
        self.write("a/before")
        os.mkdir("b")
        vexofileop.attributes("a/before")["user.comment"] = b"kept"
        vexofileop.set_finder_info("a/before", b"TEXT" + bytes(28))
        vexofileop.rename("a/before", "b/after")
        self.assertEqual(b"kept", vexofileop.attributes("b/after")["user.comment"])
        self.assertEqual(b"TEXT", vexofileop.finder_info("b/after")[:4])
        self.assertEqual(["a", "b", "b/after"], self.names())
        self.assertEqual([], os.listdir("a"))

    def test_replaces_only_when_asked_and_with_the_store(self):
        self.need_root()
        self.write("one", "1")
        self.write("other", "2")
        vexofileop.attributes("other")["user.old"] = b"old"
        error = self.raises(vexofileop.Exists, vexofileop.rename, "one", "other")
        self.assertEqual(("one", "other"), (error.path, error.other))
        vexofileop.rename("one", "other", replace=True)
        self.assertEqual(("1", []), (self.read("other"), list(vexofileop.attributes("other"))))

    def test_leaves_two_names_of_one_file(self):
        self.write("one")
        os.link("one", "other")
        self.raises(vexofileop.Exists, vexofileop.rename, "one", "other", replace=True)
        vexofileop.rename("one", "one")
        self.assertEqual(["one", "other"], self.names())

    def test_tells_what_does_not_work(self):
        self.raises(vexofileop.NotFound, vexofileop.rename, "none", "other")
        self.raises(vexofileop.NotFound, vexofileop.rename, "none/one", "other")
        self.write("one")
        self.raises(vexofileop.NotFound, vexofileop.rename, "one", "none/one")
        for destination in ("other/", "one/"):
            self.raises(vexofileop.NotDirectory, vexofileop.rename, "one", destination)
        self.raises(vexofileop.NotDirectory, vexofileop.rename, "one/", "other")
        for path in ("/", "..", "one/..", ".", "./", "one/."):
            self.raises(vexofileop.Error, vexofileop.rename, path, "other")
            self.raises(vexofileop.Error, vexofileop.rename, "one", path)
        place = self.mount("other", "tmpfs")
        error = self.raises(vexofileop.Error, vexofileop.rename, "one", place + "/one")
        self.assertEqual(errno.EXDEV, error.errno)
        self.assertTrue(os.path.exists("one"))

    def test_renames_directories_and_links_as_such(self):
        os.makedirs("directory/inside")
        os.symlink("directory", "link")
        vexofileop.rename("directory", "other")
        vexofileop.rename("link", "dangling")
        self.assertEqual("directory", os.readlink("dangling"))
        self.assertEqual(["dangling", "other", "other/inside"], self.names())
        self.raises(vexofileop.Error, vexofileop.rename, "other", "other/inside/itself")


class Remove(Case):
    def test_removes_a_file_with_its_store(self):
        self.need_root()
        self.write("a/waste")
        vexofileop.attributes("a/waste")["user.comment"] = b"kept"
        self.assertEqual(1, vexofileop.remove("a/waste").removed)
        self.assertEqual([], os.listdir("a"))

    def test_tells_what_is_not_there_or_a_directory(self):
        error = self.raises(vexofileop.NotFound, vexofileop.remove, "none")
        self.assertEqual("none", error.path)
        self.assertEqual(0, vexofileop.remove("none", missing_ok=True).removed)
        os.mkdir("directory")
        self.raises(IsADirectoryError, vexofileop.remove, "directory")
        self.write("file")
        self.raises(vexofileop.NotDirectory, vexofileop.rmtree, "file")
        self.raises(vexofileop.NotFound, vexofileop.rmtree, "none")
        self.assertEqual(0, vexofileop.rmtree("none", missing_ok=True).removed)
        for path in ("directory/..", "directory/.", "directory/./", ".", "./", "..", "/"):
            error = self.raises(vexofileop.Error, vexofileop.rmtree, path)
            self.assertEqual(errno.EINVAL, error.errno)
            self.raises(vexofileop.Error, vexofileop.move, path, "moved")
        self.assertEqual(["directory", "file"], self.names())

    def test_removes_a_tree_without_following_links(self):
        self.write("outside/kept")
        self.write("tree/a/b")
        os.symlink("../outside", "tree/link")
        gone = []
        came = vexofileop.rmtree("tree", on_entry=gone.append)
        self.assertEqual(4, came.removed)
        self.assertEqual(sorted(os.path.join(self.top, one) for one in ("tree", "tree/a", "tree/a/b", "tree/link")),
                         sorted(gone))
        self.assertEqual(["outside", "outside/kept"], self.names())

    def test_ends_with_what_a_callback_raises_and_on_request(self):
        for at in range(50):
            self.write(f"tree/{at}")

        def fail(_path):
            raise LookupError("enough")

        self.raises(LookupError, vexofileop.rmtree, "tree", on_entry=fail)
        left = len(self.names("tree"))
        self.assertTrue(0 < left < 50, left)
        self.raises(vexofileop.Cancelled, vexofileop.rmtree, "tree", cancel=lambda: True)
        self.assertEqual(left, len(self.names("tree")))

    def test_removes_the_rest_of_a_tree_and_tells_what_stays(self):
        self.need_root()
        self.write("tree/free")
        self.write("tree/held/file")
        if subprocess.run(["chattr", "+i", "tree/held/file"], check=False, stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no immutable files here")
        self.addCleanup(subprocess.run, ["chattr", "-i", self.top + "/tree/held/file"], check=False,
                        stderr=subprocess.DEVNULL)
        error = self.raises(vexofileop.Incomplete, vexofileop.rmtree, "tree")
        self.assertIn("held/file", str(error))
        self.assertEqual(["held", "held/file"], self.names("tree"))
        subprocess.run(["chattr", "-i", "tree/held/file"], check=True)
