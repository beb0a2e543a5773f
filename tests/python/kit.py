"""What the tests share: a scratch directory for each, volumes of their own, and what has to be as it was."""
import contextlib
import ctypes
import os
import shutil
import subprocess
import tempfile
import unittest

import vexofileop

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNS = 0x00020000
_private = False

# How volumes keep what belongs to a file, by the codes of their types.
EA_DIRECTORY, FILE_EA, APPLE_DOUBLE, NATIVE = 1, 2, 0, 7


def enter_private_mounts():
    """What is mounted from here on this process alone sees, and it goes with it."""
    global _private
    _private = (os.geteuid() == 0 and _libc.unshare(_CLONE_NEWNS) == 0 and
                subprocess.run(["mount", "--make-rprivate", "/"], check=False).returncode == 0)


@contextlib.contextmanager
def settings(text):
    """The appliance's settings, "/etc/vexoinfo.conf", are these meanwhile."""
    if not _private:
        raise unittest.SkipTest("needs root, and mount namespaces")
    with tempfile.TemporaryDirectory(prefix="vexofileop-etc-") as place:
        subprocess.run(["cp", "-a", "/etc/.", place], check=True)
        with open(place + "/vexoinfo.conf", "w", encoding="utf-8") as file:
            file.write(text)
        subprocess.run(["mount", "--bind", place, "/etc"], check=True)
        try:
            yield
        finally:
            subprocess.run(["umount", "-l", "/etc"], check=False)


class Case(unittest.TestCase):
    """A test in a scratch directory, after which umask, effective user and open descriptors are as before."""

    def setUp(self):
        self.top = tempfile.mkdtemp(prefix="vexofileop-python-")
        os.chmod(self.top, 0o755)
        self._mounts = []
        self._before = os.getcwd()
        os.chdir(self.top)
        self.addCleanup(self._end)
        mask = os.umask(0o022)
        os.umask(mask)
        descriptors = self._descriptors()

        def as_before():
            now = os.umask(mask)
            self.assertEqual(oct(mask), oct(now), "the umask")
            self.assertEqual(descriptors, self._descriptors(), "open descriptors")

        self.addCleanup(as_before)

    @staticmethod
    def _descriptors():
        return len(os.listdir("/proc/self/fd"))

    def _end(self):
        os.chdir(self._before)
        for place in reversed(self._mounts):
            subprocess.run(["umount", "-l", place], check=False)
        subprocess.run(["rm", "-rf", "--one-file-system", self.top], check=False)  # however deep it is

    def need_root(self):
        if os.geteuid() != 0:
            self.skipTest("needs root")

    def mount(self, name, kind, *options):
        """A volume of its own in the directory of that name; "tmpfs", "ramfs", or a file system that mkfs makes."""
        if not _private:
            self.skipTest("needs root, and mount namespaces")
        place = os.path.join(self.top, name)
        os.mkdir(place)
        if kind in ("tmpfs", "ramfs"):
            command = ["mount", "-t", kind, *options, kind, place]
        else:
            maker = shutil.which("mkfs." + kind, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
            if maker is None:
                self.skipTest(f"mkfs.{kind} is missing")
            image = os.path.join(self.top, name + ".img")
            with open(image, "wb") as file:
                file.truncate(320 << 20)
            subprocess.run([maker, "-q", image], check=True, stdout=subprocess.DEVNULL)
            command = ["mount", "-o", "loop", image, place]
        if subprocess.run(command, check=False, stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest(f"no {kind} volume can be mounted here")
        self._mounts.append(place)
        return place

    def of_type(self, name, code):
        """A directory that the platform says to be on a volume of that type."""
        place = os.path.join(self.top, name)
        os.makedirs(place, exist_ok=True)
        known = os.environ.get("VEXOFILEOP_FSTYPES", "")
        self.addCleanup(os.environ.__setitem__, "VEXOFILEOP_FSTYPES", known)
        os.environ["VEXOFILEOP_FSTYPES"] = (known + ":" if known else "") + f"{place}={code}"
        return place

    def write(self, name, text="light"):
        path = os.path.join(self.top, name) if isinstance(name, str) else os.path.join(os.fsencode(self.top), name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def read(self, name):
        with open(os.path.join(self.top, os.fspath(name)), encoding="utf-8") as file:
            return file.read()

    def raises(self, kind, function, *arguments, **options):
        """The exception, for a closer look."""
        with self.assertRaises(kind) as caught:
            function(*arguments, **options)
        return caught.exception

    def names(self, place="."):
        """All entries below a directory, without what is kept for others."""
        found = []
        for directory, directories, files in os.walk(place):
            directories[:] = [one for one in directories if one != "@eaDir"]
            found += [os.path.relpath(os.path.join(directory, one), place) for one in directories + files]
        return sorted(found)

    def store_is_sound(self, place):
        """The tool finds nothing wrong with what is kept there."""
        tool = os.environ.get("VEXOFILEOP_TOOL")
        if tool:
            checked = subprocess.run([tool, "store", "check", place], check=False, capture_output=True, text=True)
            self.assertEqual(0, checked.returncode, checked.stdout + checked.stderr)



__all__ = ["APPLE_DOUBLE", "Case", "EA_DIRECTORY", "FILE_EA", "NATIVE", "enter_private_mounts", "settings",
           "vexofileop"]
