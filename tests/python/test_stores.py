"""The stores of whole trees: checked, repaired, put back, converted."""
import os

from kit import APPLE_DOUBLE, Case, vexofileop


class Stores(Case):
    def setUp(self):
        super().setUp()
        self.need_root()
        self.write("share/in/a")
        vexofileop.attributes("share/in/a")["user.comment"] = b"kept"

    def streams(self):
        """The files in which attributes are kept here."""
        return [os.path.join(directory, name) for directory, _, names in os.walk("share") for name in names
                if os.path.basename(directory) == "@eaDir"]

    def test_are_checked(self):
        report = vexofileop.check_stores("share", recursive=True)
        self.assertEqual((True, 0, [], []), (bool(report), report.found, report.findings, report.troubles))
        self.assertGreater(report.stores, 0)
        os.rename("share/in/a", "share/in/b")
        told = []
        report = vexofileop.check_stores("share", recursive=True, on_finding=told.append)
        self.assertFalse(report)
        self.assertEqual(["store-orphan"], [finding.name for finding in report.findings])
        self.assertEqual((report.findings, "found", os.path.join(self.top, "share/in/b")),
                         (told, told[0].state, told[0].belongs))
        self.assertTrue(vexofileop.check_stores("share"))  # not what lies below
        self.raises(vexofileop.NotFound, vexofileop.check_stores, "none")
        self.raises(vexofileop.Cancelled, vexofileop.check_stores, "share", recursive=True, cancel=lambda: True)

        def fail(_finding):
            raise LookupError("enough")

        self.raises(LookupError, vexofileop.check_stores, "share", recursive=True, on_finding=fail)

    def test_are_repaired_and_put_back(self):
        store = self.streams()[0]
        with open(store, "ab") as file:
            file.write(b"more than its header names")
        with open(store, "rb") as file:
            damaged = file.read()
        report = vexofileop.repair_stores("share", "originals", recursive=True)
        self.assertEqual((True, 1, "mended", os.path.join(self.top, "originals")),
                         (bool(report), report.mended, report.findings[0].state, report.quarantine))
        self.assertTrue(vexofileop.check_stores("share", recursive=True))
        self.assertEqual(b"kept", vexofileop.attributes("share/in/a")["user.comment"])
        self.assertIsNone(vexofileop.repair_stores("share", "unused", recursive=True).quarantine)
        self.assertFalse(os.path.exists("unused"))
        self.assertEqual(1, vexofileop.undo_repair("originals"))
        with open(store, "rb") as file:
            self.assertEqual(damaged, file.read())
        self.assertEqual(0, vexofileop.undo_repair("originals"))
        vexofileop.repair_stores("share", "again", recursive=True)
        vexofileop.attributes("share/in/a")["user.comment"] = b"changed since"
        error = self.raises(vexofileop.Incomplete, vexofileop.undo_repair, "again")
        self.assertEqual(1, len(error.args[0]))
        self.raises(vexofileop.Error, vexofileop.undo_repair, "share")

    def test_are_converted(self):
        self.of_type("share", APPLE_DOUBLE)
        dry = vexofileop.convert_stores("share", "double", recursive=True, dry_run=True)
        self.assertEqual((1, 0, 0, True), (dry.convertible, dry.converted, dry.left, bool(dry)))
        self.assertEqual(1, len(self.streams()))
        told = []
        report = vexofileop.convert_stores("share", "double", recursive=True, on_store=told.append)
        self.assertEqual((1, 0, "eadir", "double"),
                         (report.converted, report.left, told[0].source_form, told[0].form))
        self.assertEqual(([], b"kept"), (self.streams(), vexofileop.attributes("share/in/a")["user.comment"]))
        self.assertTrue(os.path.exists("share/in/._a"))

    def test_stay_where_the_new_form_cannot_hold_them(self):
        vexofileop.attributes("share/in/a")["user.large"] = bytes(200_000)
        error = self.raises(vexofileop.Incomplete, vexofileop.convert_stores, "share", "native", recursive=True)
        self.assertEqual([os.path.join(self.top, "share/in/a")], [source for source, _, _ in error.args[0]])
        self.assertEqual(200_000, len(vexofileop.attributes("share/in/a")["user.large"]))
        self.raises(ValueError, vexofileop.convert_stores, "share", "zip")
        self.raises(ValueError, vexofileop.convert_stores, "share", "double", accept="nothing")
