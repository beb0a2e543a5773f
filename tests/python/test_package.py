"""The package as such: errors, tables, and what it is loaded from."""
import glob
import errno
import inspect
import os
import pickle
import re
import shutil
import subprocess
import sys

from kit import Case, vexofileop

PACKAGE = os.path.dirname(vexofileop.__file__)


class Errors(Case):
    def test_are_of_the_classes_that_python_has(self):
        for kind, known in ((vexofileop.NotFound, FileNotFoundError), (vexofileop.Exists, FileExistsError),
                            (vexofileop.Denied, PermissionError), (vexofileop.IsDirectory, IsADirectoryError),
                            (vexofileop.NotDirectory, NotADirectoryError)):
            self.assertTrue(issubclass(kind, known) and issubclass(kind, vexofileop.Error))
        self.assertTrue(issubclass(vexofileop.Error, OSError))

    def test_explain_themselves_and_survive_a_pickle(self):
        error = self.raises(vexofileop.Error, vexofileop.copy, "none", "copy")
        self.assertTrue(error.help)
        again = pickle.loads(pickle.dumps(error))
        self.assertEqual((type(error), error.code, error.errno, str(error), error.path, error.other),
                         (type(again), again.code, again.errno, str(again), again.path, again.other))

    def test_say_every_code_in_words(self):
        known = [vexofileop.explain(code) for code in range(0x100, 0x10000, 0x100)]
        known = [one for one in known if one is not None]
        self.assertGreater(len(known), 35)
        for one in known:
            self.assertTrue(one.reason and one.cause and one.help, one)
            self.assertNotRegex(one.help.replace("ulimit -f", ""), r"(^|\s)--?[a-z]", one)

    def test_keep_what_the_kernel_said_where_a_code_has_several_causes(self):
        from vexofileop._errors import error_of
        self.assertEqual(errno.EROFS, error_of(0x0300, errno.EROFS, "", "copy", "a").errno)
        self.assertEqual(errno.EEXIST, error_of(0xA300, errno.ENOENT, "", "copy", "a").errno)
        self.assertEqual("No such file or directory", error_of(0, errno.ENOENT, "", "copy", "a").strerror)


class Tables(Case):
    def test_name_the_classes_of_losses(self):
        found = {one.name: one for one in vexofileop.loss_classes()}
        self.assertEqual({"lost", "changed", "costs-more"}, {one.severity for one in found.values()})
        self.assertIn("acl-access", found)
        self.assertTrue(all(one.meaning and one.help and one.one and one.several for one in found.values()))


class Package(Case):
    def test_documents_what_it_has(self):
        for name in vexofileop.__all__:
            found = getattr(vexofileop, name)
            self.assertTrue(inspect.getdoc(found), name)
            if inspect.isfunction(found):
                with self.subTest(name):
                    self.assertIn("\n>>> ", inspect.getdoc(found), "has no example")
        with open(os.path.join(os.path.dirname(__file__), "../../docs/python.md"), encoding="utf-8") as file:
            guide = file.read()
        for name in vexofileop.__all__:
            self.assertRegex(guide, rf"`{name}\b", f"docs/python.md does not name {name}")
        told = set(re.findall(r"^\| `([a-z_]+)\(", guide, re.MULTILINE))
        self.assertEqual(set(), told - set(vexofileop.__all__), "functions that there are none of")

    def import_from(self, package):
        made = dict(os.environ, PYTHONPATH=package, PYTHONDONTWRITEBYTECODE="1")
        return subprocess.run([sys.executable, "-c", "import vexofileop"], env=made, check=False, capture_output=True, text=True)

    def copy_of_package(self):
        shutil.copytree(PACKAGE, "elsewhere/vexofileop", ignore=shutil.ignore_patterns("__pycache__", "*.so"))
        for library in glob.glob(PACKAGE + "/*.so"): # it finds the others from where it stands
            os.symlink(os.path.realpath(library), "elsewhere/vexofileop/" + os.path.basename(library))
        return os.path.join(self.top, "elsewhere")

    def test_refuses_a_binding_that_is_missing_or_another(self):
        if os.environ.get("VEXO_SANITIZED"):
            self.skipTest("other processes have no run-time library of the sanitizer")
        place = self.copy_of_package()
        self.assertEqual(0, self.import_from(place).returncode)
        declarations = place + "/vexofileop/_declarations.py"
        with open(declarations, encoding="utf-8") as file:
            text = file.read()
        with open(declarations, "w", encoding="utf-8") as file:
            file.write(text + "\nBINDING = 'none.so'\n")
        came = self.import_from(place)
        self.assertIn("ImportError: vexofileop: ", came.stderr)
        self.assertIn("none.so", came.stderr)
        with open(declarations, "w", encoding="utf-8") as file:
            file.write(text)
        library = place + "/vexofileop/_library.py"
        with open(library, encoding="utf-8") as file:
            text = file.read()
        with open(library, "w", encoding="utf-8") as file:
            file.write(text.replace('"VexoFailure", "VexoProblem"', '"VexoProblem", "VexoFailure"'))
        self.assertIn("of another version", self.import_from(place).stderr)

    def test_has_types_that_hold(self):
        checker = shutil.which("mypy")
        if checker is None:
            self.skipTest("mypy is not installed")
        place = self.copy_of_package()
        with open("caller.py", "w", encoding="utf-8") as file:
            file.write("import vexofileop\n"
                       "receipt: vexofileop.Receipt = vexofileop.copy('a', b'b', progress=lambda done: None)\n"
                       "value: bytes = vexofileop.attributes('a')['b']\n"
                       "open(receipt)\n")
        came = subprocess.run([checker, "--strict", "--cache-dir", os.devnull, "--python-executable", sys.executable,
                               "-p", "vexofileop"],
                              cwd=place, check=False, capture_output=True, text=True)
        self.assertEqual(0, came.returncode, came.stdout + came.stderr)
        came = subprocess.run([checker, "--strict", "--cache-dir", os.devnull, self.top + "/caller.py"], check=False,
                              env=dict(os.environ, MYPYPATH=place), capture_output=True, text=True)
        self.assertEqual(0, came.returncode, came.stdout + came.stderr)
        with open("caller.py", "a", encoding="utf-8") as file:
            file.write("vexofileop.copy('a', 3)\n")
        came = subprocess.run([checker, "--cache-dir", os.devnull, self.top + "/caller.py"], check=False,
                              env=dict(os.environ, MYPYPATH=place), capture_output=True, text=True)
        self.assertIn("incompatible type", came.stdout)
