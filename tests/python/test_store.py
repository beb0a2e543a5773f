"""What belongs to a file, on every kind of volume."""
import errno
import io
import multiprocessing
import os
from collections.abc import MutableMapping

from kit import APPLE_DOUBLE, EA_DIRECTORY, FILE_EA, NATIVE, Case, vexofileop

KINDS = {"directory": EA_DIRECTORY, "attribute": FILE_EA, "double": APPLE_DOUBLE}


def _hold_fork(path, ready, done):
    with vexofileop.open_resource_fork(path, "wb") as fork:
        fork.write(b"held")
        ready.set()
        done.wait(60)


class Attributes(Case):
    def setUp(self):
        super().setUp()
        self.need_root()

    def files(self):
        """A file on each kind of volume."""
        for name, code in [*KINDS.items(), ("native", NATIVE)]:
            yield name, self.write(self.of_type(name, code) + "/file")

    def test_are_a_mutable_mapping(self):
        for name, path in self.files():
            with self.subTest(name):
                found = vexofileop.attributes(path)
                self.assertIsInstance(found, MutableMapping)
                self.assertEqual((0, [], False), (len(found), list(found), "user.a" in found))
                found["user.a"] = b"1"
                found.update({"user.b": b"22", "user.c": b"\0\xff\n"})
                self.assertEqual({"user.a": b"1", "user.b": b"22", "user.c": b"\0\xff\n"}, dict(found))
                self.assertEqual((3, 2), (len(found), found.size("user.b")))
                found["user.b"] = b""
                self.assertEqual(b"", found["user.b"])
                self.assertEqual(b"1", found.pop("user.a"))
                self.assertEqual(b"new", found.setdefault("user.d", b"new"))
                self.assertIsNone(found.get("user.a"))
                del found["user.b"]
                self.assertEqual(["user.c", "user.d"], sorted(found))
                found.clear()
                self.assertEqual({}, dict(found))
                self.store_is_sound(os.path.dirname(path))

    def test_say_which_are_missing_or_there(self):
        for name, path in self.files():
            with self.subTest(name):
                found = vexofileop.attributes(path)
                for access in (lambda: found["user.none"], lambda: found.__delitem__("user.none"),
                               lambda: found.size("user.none"), lambda: found.replace("user.none", b"")):
                    with self.assertRaises(KeyError) as caught:
                        access()
                    self.assertEqual("user.none", caught.exception.args[0])
                found.add("user.a", b"1")
                self.raises(vexofileop.Exists, found.add, "user.a", b"2")
                found.replace("user.a", b"3")
                self.assertEqual(b"3", found["user.a"])

    def test_take_any_buffer_and_names_of_bytes(self):
        found = vexofileop.attributes(self.write(self.of_type("directory", EA_DIRECTORY) + "/file"))
        found["a"] = bytearray(b"1")
        found["b"] = memoryview(b"22")
        name = os.fsdecode(b"broken \xff\nname")
        found[name] = b"3"
        self.assertEqual({"a", "b", name}, set(found))
        self.assertEqual(b"3", found[name])
        for name in ("", "a\0b"):
            self.raises(ValueError, found.__setitem__, name, b"")
        self.raises(TypeError, found.__setitem__, "a", "text")
        self.raises(TypeError, found.__getitem__, 3)

    def test_keep_a_large_value(self):
        found = vexofileop.attributes(self.write(self.of_type("directory", EA_DIRECTORY) + "/file"))
        value = os.urandom(3 << 20)
        found["large"], found["small"] = value, b"1"
        self.assertEqual((value, b"1"), (found["large"], found["small"]))

    def test_follow_no_link_and_tell_what_is_missing(self):
        self.write("file")
        os.symlink("file", "link")
        error = self.raises(vexofileop.Error, list, vexofileop.attributes("link"))
        self.assertEqual(errno.ELOOP, error.errno)
        error = self.raises(vexofileop.NotFound, list, vexofileop.attributes("none"))
        self.assertEqual(os.path.join(self.top, "none"), error.path)
        self.raises(vexofileop.NotFound, vexofileop.attributes("none/file").__setitem__, "a", b"")
        place = self.of_type("nothing", 12)
        error = self.raises(vexofileop.Error, list, vexofileop.attributes(self.write(place + "/file")))
        self.assertEqual(errno.EOPNOTSUPP, error.errno)

    def test_stay_those_of_the_file_where_the_process_goes_elsewhere(self):
        self.write("file")
        found = vexofileop.attributes("file")
        os.mkdir("elsewhere")
        os.chdir("elsewhere")
        found["a"] = b"1"
        os.chdir(self.top)
        self.assertEqual(b"1", vexofileop.attributes("file")["a"])
        self.assertIn("@eaDir", found.kept_in)
        self.assertFalse(3 in found or "" in found)
        self.raises(vexofileop.NotFound, lambda: vexofileop.attributes("none").kept_in)
        self.assertIn("file", repr(found))


class FinderInfo(Case):
    def test_is_kept_on_every_kind_of_volume(self):
        self.need_root()
        value = b"TEXTttxt" + bytes(range(24))
        other = b"PICTogle" + bytes(24)
        for name, code in KINDS.items():
            with self.subTest(name):
                path = self.write(self.of_type(name, code) + "/file")
                self.assertIsNone(vexofileop.finder_info(path))
                for step in (value, other, None, value):
                    vexofileop.set_finder_info(path, step)
                    self.assertEqual(step, vexofileop.finder_info(path))
                vexofileop.attributes(path)["user.a"] = b"1"
                with vexofileop.open_resource_fork(path, "wb") as fork:
                    fork.write(b"fork")
                vexofileop.set_finder_info(path, other)
                self.assertEqual(b"1", vexofileop.attributes(path)["user.a"])
                with vexofileop.open_resource_fork(path) as fork:
                    self.assertEqual(b"fork", fork.read())
                copy = vexofileop.copy(path, path + " copy")
                self.assertEqual(other, vexofileop.finder_info(copy))
                self.store_is_sound(os.path.dirname(path))

    def test_has_its_length_and_makes_no_store_for_nothing(self):
        self.write("file")
        vexofileop.set_finder_info("file", None)
        self.assertEqual(["file"], os.listdir("."))
        for value in (b"", b"TEXT", bytes(33)):
            self.raises(ValueError, vexofileop.set_finder_info, "file", value)
        self.raises(vexofileop.NotFound, vexofileop.finder_info, "none")
        self.raises(vexofileop.NotFound, vexofileop.set_finder_info, "none", bytes(32))


class ResourceFork(Case):
    def setUp(self):
        super().setUp()
        self.need_root()

    def test_is_a_file(self):
        for name, code in KINDS.items():
            with self.subTest(name):
                path = self.write(self.of_type(name, code) + "/file")
                with vexofileop.open_resource_fork(path, "wb") as fork:
                    self.assertIsInstance(fork, io.RawIOBase)
                    self.assertEqual(12, fork.write(b"hello, world"))
                    self.assertEqual((7, 7), (fork.seek(7), fork.tell()))
                    fork.write(memoryview(b"there"))
                    self.assertEqual((12, 12), (fork.tell(), fork.size))
                    self.assertEqual(9, fork.seek(-3, os.SEEK_END))
                    self.assertEqual(10, fork.seek(1, os.SEEK_CUR))
                    self.assertEqual(b"re", fork.read())
                    self.assertEqual(b"", fork.read())
                    fork.truncate(5)
                    fork.seek(8)
                    fork.write(b"!")
                    fork.sync()
                    fork.seek(0)
                    self.assertEqual(b"hello\0\0\0!", fork.read())
                    self.raises(ValueError, fork.seek, -1)
                    self.raises(ValueError, fork.seek, 0, 7)
                with io.BufferedReader(vexofileop.open_resource_fork(path)) as reader:
                    self.assertEqual((b"hel", b"lo\0\0\0!"), (reader.read(3), reader.read()))
                with vexofileop.open_resource_fork(path, "a+b") as fork:
                    fork.write(b"?")
                with vexofileop.open_resource_fork(path, "r+b") as fork:
                    self.assertEqual(b"hello\0\0\0!?", fork.read())
                with vexofileop.open_resource_fork(path, "wb") as fork:
                    self.assertEqual(0, fork.size)
                    fork.write(b"new")
                self.store_is_sound(os.path.dirname(path))

    def test_says_what_it_cannot(self):
        self.write("file")
        self.raises(vexofileop.NotFound, vexofileop.open_resource_fork, "file")
        self.raises(vexofileop.NotFound, vexofileop.open_resource_fork, "file", "r+b")
        self.raises(vexofileop.NotFound, vexofileop.open_resource_fork, "none", "wb")
        self.raises(ValueError, vexofileop.open_resource_fork, "file", "x")
        os.symlink("file", "link")
        error = self.raises(vexofileop.Error, vexofileop.open_resource_fork, "link", "wb")
        self.assertEqual(errno.ELOOP, error.errno)
        with vexofileop.open_resource_fork("file", "wb") as fork:
            fork.write(b"1")
        with vexofileop.open_resource_fork("file") as fork:
            self.assertFalse(fork.writable())
            self.raises(io.UnsupportedOperation, fork.write, b"2")
            self.raises(io.UnsupportedOperation, fork.truncate, 0)
        self.raises(ValueError, fork.read)
        self.raises(ValueError, lambda: fork.size)
        fork.close()
        with vexofileop.open_resource_fork("file", "r+b") as fork:
            fork.seek(1 << 32)
            error = self.raises(vexofileop.Error, fork.write, b"far")
            self.assertEqual(errno.EFBIG, error.errno)
            self.assertEqual(1, fork.size)

    def test_is_locked_by_whoever_has_it_open(self):
        path = self.write("file")
        context = multiprocessing.get_context("fork")
        ready, done = context.Event(), context.Event()
        holder = context.Process(target=_hold_fork, args=(path, ready, done))
        holder.start()
        try:
            self.assertTrue(ready.wait(60))
            error = self.raises(vexofileop.Error, vexofileop.open_resource_fork, path)
            self.assertEqual((0x0400, errno.EAGAIN), (error.code, error.errno))
        finally:
            done.set()
            holder.join()
        with vexofileop.open_resource_fork(path) as fork:
            self.assertEqual(b"held", fork.read())
