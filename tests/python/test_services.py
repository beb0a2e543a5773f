"""Archive bits, indexes, notifications, clones, bytes between descriptors."""
import errno
import os
import socket
import struct
import subprocess
import threading

from kit import Case, settings, vexofileop


class ArchiveBit(Case):
    def test_is_set_cleared_and_told(self):
        path = self.write("file")
        vexofileop.set_archive_bit("file")
        self.assertTrue(vexofileop.archive_bit(path))
        vexofileop.clear_archive_bit("file")
        self.assertFalse(vexofileop.archive_bit(os.fsencode(path)))
        error = self.raises(vexofileop.NotFound, vexofileop.archive_bit, "none")
        self.assertEqual("none", error.path)
        self.assertEqual(0x0900, self.raises(vexofileop.Error, vexofileop.clear_archive_bit, "none").code)
        self.raises(vexofileop.NotFound, vexofileop.set_archive_bit, "none")


class Index(Case):
    def test_answers(self):
        self.assertIn(vexofileop.index_is_needed(), (True, False))
        self.assertEqual((False, False), vexofileop.indexing(self.write("file")))
        self.raises(ValueError, vexofileop.indexing, "")

    def test_resolves_and_cuts_nothing(self):
        self.assertEqual(os.path.join(self.top, "file"), vexofileop.indexed_path("file"))
        self.assertEqual("/volume1/a", vexofileop.indexed_path("/volume1/a"))
        error = self.raises(vexofileop.Error, vexofileop.indexed_path, "/" + "a" * 5000)
        self.assertEqual((0xC300, errno.ENAMETOOLONG), (error.code, error.errno))


class Notify(Case):
    def test_sends_the_paths_and_the_event(self):
        self.mount("run", "tmpfs")
        subprocess.run(["mount", "--bind", "run", "/var/run"], check=True)
        self._mounts.append("/var/run")
        got = []
        with socket.socket(socket.AF_UNIX) as service:
            service.bind("/var/run/vexotifyd.sock")
            service.listen()

            def serve():
                connection, _ = service.accept()
                with connection, connection.makefile("rb") as stream:
                    size, = struct.unpack("<Q", stream.read(8))
                    got.append(stream.read(size))

            thread = threading.Thread(target=serve)
            thread.start()
            vexofileop.notify("new", 2, previous="old")
            thread.join()
        self.assertIn(b'"event": 2', got[0])
        self.assertIn(os.path.join(self.top, "new").replace("/", "\\/").encode(), got[0])
        self.assertIn(b"path_old", got[0])
        vexofileop.notify("new", 2)  # nobody is there
        self.raises(ValueError, vexofileop.notify, "", 2)


class Names(Case):
    def test_take_what_a_fat_volume_takes(self):
        self.assertEqual("/a/b-c", vexofileop.fat_name("/a/b:c"))
        self.assertEqual(os.path.join(self.top, "a-"), vexofileop.fat_name("a?"))
        self.raises(vexofileop.Error, vexofileop.fat_name, "/")
        self.raises(vexofileop.Error, vexofileop.fat_name, "/" + "a" * 5000)


class Clones(Case):
    def test_are_switched(self):
        with settings('support_btrfs="no"\n'):
            error = self.raises(vexofileop.Error, vexofileop.enable_clones, True)
            self.assertEqual((0xD900, errno.EOPNOTSUPP), (error.code, error.errno))
        with settings('support_btrfs="yes"\n'):
            vexofileop.enable_clones(True)
            self.assertTrue(vexofileop.clones_are_enabled())
            vexofileop.enable_clones(False)
            self.assertFalse(vexofileop.clones_are_enabled())


class CopyData(Case):
    def test_moves_bytes_between_descriptors(self):
        with open("source", "wb") as file:
            file.write(b"0123456789" * 2_000_000)
        done = []
        with open("source", "rb") as source, open("copy", "wb") as copy:
            vexofileop.copy_data(source.fileno(), copy.fileno(), 20_000_000, progress=done.append)
        self.assertEqual(20_000_000, done[-1])
        with open("source", "rb") as source, open("copy", "rb") as copy:
            self.assertEqual(source.read(), copy.read())

    def test_stops_and_fails(self):
        with open("source", "wb") as file:
            file.write(b"0" * 1000)
        with open("source", "rb") as source, open("copy", "wb") as copy:
            one, other = source.fileno(), copy.fileno()
            error = self.raises(vexofileop.Cancelled, vexofileop.copy_data, one, other, 1000, cancel=lambda: True)
            self.assertEqual(0xA600, error.code)

            def fail(*_):
                raise LookupError("enough")

            os.lseek(one, 0, os.SEEK_SET)
            self.raises(LookupError, vexofileop.copy_data, one, other, 1000, cancel=fail)
            self.assertEqual(0x0D00, self.raises(vexofileop.Error, vexofileop.copy_data, -1, other, 1000).code)
            os.lseek(one, 0, os.SEEK_SET)
            self.assertEqual(0x0A00, self.raises(vexofileop.Error, vexofileop.copy_data, one, other, 2000).code)
