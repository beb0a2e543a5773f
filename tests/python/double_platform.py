"""What the platform can do to a call: with its double before the library."""
import ctypes
import errno
import os

from kit import Case, vexofileop

double = ctypes.CDLL(None)
double.vexo_double_count.restype = ctypes.c_int


class Platform(Case):
    def setUp(self):
        super().setUp()
        double.vexo_double_reset()
        self.addCleanup(double.vexo_double_reset)

    @staticmethod
    def let_fail(function, number, path="", times=1, code=0):
        double.vexo_double_fail(function.encode(), number, path.encode(), times, code)

    def test_is_asked_of_each_call(self):
        self.write("file")
        before = double.vexo_double_count(b"VEXOGetFSType")
        vexofileop.copy("file", "copy")
        self.assertGreater(double.vexo_double_count(b"VEXOGetFSType"), before)

    def test_says_what_a_volume_is(self):
        self.need_root()
        place = os.path.join(self.top, "fat")
        os.mkdir(place)
        double.vexo_double_type(os.fsencode(place), 0, 0)
        self.write("wh?t")
        error = self.raises(vexofileop.Incomplete, vexofileop.copy, "wh?t", place)
        self.assertIn("name-changed", error.receipt.losses)
        self.assertEqual(["wh-t"], self.names(place))
        vexofileop.attributes(place + "/wh-t")["a"] = b"1"
        self.assertEqual(["._wh-t", "wh-t"], sorted(os.listdir(place)))

    def test_cannot_tell_a_volume(self):
        self.write("file")
        self.let_fail("VEXOGetFSType", errno.EIO, times=0)
        error = self.raises(vexofileop.Error, list, vexofileop.attributes("file"))
        self.assertEqual(errno.EIO, error.errno)
        error = self.raises(vexofileop.Error, vexofileop.set_finder_info, "file", bytes(32))
        self.assertEqual(errno.EIO, error.errno)

    def test_fails_in_the_middle_of_a_copy(self):
        with open("file", "wb") as file:
            file.write(b"x" * 100_000)
        with open("old", "wb") as file:
            file.write(b"the only one")
        for function, number in (("write", errno.ENOSPC), ("write", errno.EIO), ("read", errno.EIO)):
            with self.subTest(function, number=number):
                double.vexo_double_reset()
                self.let_fail(function, number, self.top)
                error = self.raises(vexofileop.Error, vexofileop.copy, "file", "old", existing="replace")
                self.assertTrue(error.code, error)
                self.assertEqual(["file", "old"], self.names())
                self.assertEqual("the only one", self.read("old"))

    def test_fails_where_an_attribute_is_set(self):
        self.need_root()
        self.write("file")
        found = vexofileop.attributes("file")
        found["a"] = b"1"
        for function in ("write", "pwrite", "fsync"):
            with self.subTest(function):
                double.vexo_double_reset()
                self.let_fail(function, errno.ENOSPC, "@eaDir")
                before = double.vexo_double_count(function.encode())
                try:
                    found["a"] = b"2" * 1000
                except vexofileop.Error as error:
                    self.assertTrue(error.errno, error)
                    self.assertEqual(b"1", found["a"])
                else:
                    self.assertEqual(before, double.vexo_double_count(function.encode()), "a failure went unnoticed")
                    self.assertEqual(b"2" * 1000, found["a"])
                found["a"] = b"1"

    def test_fails_where_a_renamed_file_leaves_its_store(self):
        self.need_root()
        self.write("before")
        vexofileop.attributes("before")["a"] = b"1"
        child = os.fork()
        if child == 0:
            self.let_fail("rename", errno.EIO, "@eaDir", times=0)
            try:
                vexofileop.rename("before", "after")
            except vexofileop.Incomplete as error:
                os._exit(7 if (error.path, error.other) == ("before", "after") else 1)
            os._exit(2)
        _, status = os.waitpid(child, 0)
        self.assertEqual(7, os.waitstatus_to_exitcode(status))
        self.assertEqual(["after"], [name for name in self.names() if not name.startswith(".")])
        vexofileop.rename("after", "again")  # which finishes the first one
        self.assertEqual((b"1", ["again"]), (vexofileop.attributes("again")["a"], self.names()))

    def test_fails_where_a_file_or_a_volume_is_written_out(self):
        self.write("file")
        self.let_fail("fsync", errno.EIO, times=0)
        error = self.raises(vexofileop.Error, vexofileop.copy, "file", "copy", sync="file")
        self.assertEqual(errno.EIO, error.errno)
        self.assertEqual(["file"], self.names())
        double.vexo_double_reset()
        self.let_fail("syncfs", errno.EIO, times=0)
        error = self.raises(vexofileop.Incomplete, vexofileop.copy, "file", "copy", sync="volume")
        self.assertEqual((1, errno.EIO), (error.receipt.failed, error.errno))
        self.assertTrue(vexofileop.copy("file", "again").complete)

    def test_fails_in_the_middle_of_a_relocation(self):
        self.need_root()
        self.write("share/one-of-them")
        self.write("old/b")
        self.let_fail("syncfs", errno.EIO, times=0)
        error = self.raises(vexofileop.Error, vexofileop.relocate, "share", "old")
        self.assertNotIsInstance(error, vexofileop.Incomplete)
        self.assertIn(os.strerror(errno.EIO), str(error))
        double.vexo_double_reset()
        self.assertEqual(["old", "old/b", "share", "share/one-of-them"], self.names())

    def test_fails_where_a_fork_is_written_or_read(self):
        self.need_root()
        self.write("file")
        with vexofileop.open_resource_fork("file", "wb") as fork:
            fork.write(b"one")
            self.let_fail("pwrite", errno.ENOSPC, "@eaDir")
            error = self.raises(vexofileop.Error, fork.write, b"x" * 1000)
            self.assertEqual((errno.ENOSPC, 3, 3), (error.errno, fork.size, fork.tell()))
            fork.seek(0)
            self.let_fail("pread", errno.EIO, "@eaDir")
            error = self.raises(vexofileop.Error, fork.read)
            self.assertEqual(0x0A00, error.code)
            self.assertEqual(b"one", fork.read())

    def test_has_a_share_that_is_indexed(self):
        double.vexo_double_share(os.fsencode(self.top), b"photo", 0x20)
        path = self.write("a.jpg")
        self.assertTrue(vexofileop.indexing(path).enabled)
        double.vexo_double_share(os.fsencode(self.top), b"photo", 0)
        self.assertFalse(vexofileop.indexing(path).enabled)

    def test_fails_in_the_middle_of_a_mirror_or_a_backup(self):
        self.need_root()
        with open(self.write("album/a"), "wb") as file:
            file.write(b"x" * 2_000_000)  # a small one is written before it has a name below this directory
        self.write("copy/only here")
        vexofileop.set_archive_bit("album/a")
        for function, number in (("write", errno.ENOSPC), ("read", errno.EIO)):
            for call in (vexofileop.mirror, vexofileop.backup_run):
                with self.subTest(function, call=call):
                    double.vexo_double_reset()
                    self.let_fail(function, number, self.top)
                    error = self.raises(vexofileop.Incomplete, call, "album", "copy")
                    self.assertEqual((1, 0, 0), (error.receipt.failed, error.receipt.removed,
                                                 error.receipt.bits_cleared), error)
                    self.assertEqual((["only here"], True), (self.names("copy"), vexofileop.archive_bit("album/a")))
        double.vexo_double_reset()
        receipt = vexofileop.backup_run("album", "copy")
        self.assertEqual((1, 1), (receipt.files, receipt.bits_cleared))
        self.assertEqual(1, vexofileop.mirror("album", "copy").removed)
