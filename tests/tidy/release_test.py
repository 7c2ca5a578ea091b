#!/usr/bin/env python3
"""The parts of a release: archives and bills of materials depend on what they contain alone, and a bill that
lacks what SPDX 2.3 requires is refused."""
import copy
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import types
import unittest

TREE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "scripts"))
import release_parts  # noqa: E402


class Staged(unittest.TestCase):
    def setUp(self):
        os.environ["SOURCE_DATE_EPOCH"] = "1700000000"
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def stage(self, name, names=("README.md", "bin/b.exe", "bin/a.dll")):
        for inside in names:
            path = self.folder / name / inside
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(inside)
        return self.folder / name


class Release(Staged):
    def test_an_archive_depends_on_names_and_bytes_alone(self):
        one, other = self.stage("one"), self.stage("other", ("bin/a.dll", "README.md", "bin/b.exe"))
        os.utime(other / "README.md", (1, 1))
        os.chmod(other / "bin/b.exe", 0o600)
        release_parts.pack(one, self.folder / "one.zip", "vyr")
        release_parts.pack(other, self.folder / "other.zip", "vyr")
        self.assertEqual((self.folder / "one.zip").read_bytes(), (self.folder / "other.zip").read_bytes())

    def test_an_installer_depends_on_names_and_bytes_alone(self):
        if shutil.which("makensis") is None:
            self.skipTest("no makensis here")
        made = []
        for name, zone, umask in (("one", "UTC", 0o022), ("another/of-a-longer-name", "Pacific/Auckland", 0o077)):
            stage, lists, setup = (self.folder / part / name for part in ("stage", "lists", "setup"))
            before = os.umask(umask)
            self.addCleanup(os.umask, before)
            self.stage(f"stage/{name}")
            os.utime(stage / "README.md", (umask, umask))
            release_parts.nsis(types.SimpleNamespace(stage=stage, folder=lists))
            setup.mkdir(parents=True)
            subprocess.run(["makensis", "-V1", "-NOCD", "-DVERSION=1.2.3", f"-DLISTS={lists}",
                            f"-DOUTPUT={setup / 'setup.exe'}", release_parts.ROOT / "packaging/vyr.nsi"],
                           check=True, env={**os.environ, "TZ": zone})  # fmt: skip
            os.umask(before)
            made.append((setup / "setup.exe").read_bytes())
        self.assertEqual(*made)

    def test_the_installer_removes_each_file_it_writes_and_no_folder_of_others(self):
        release_parts.nsis(types.SimpleNamespace(stage=self.stage("one"), folder=self.folder / "lists"))
        install = (self.folder / "lists/install_files.nsh").read_text()
        remove = (self.folder / "lists/remove_files.nsh").read_text()
        for name in ("README.md", "bin\\b.exe", "bin\\a.dll"):
            self.assertEqual(remove.count(f'"$INSTDIR\\{name}"'), 1)
        self.assertEqual(install.count("\nFile "), 3)
        self.assertEqual(install.count("MoveAside"), 2)  # the DLL and the program
        self.assertIn('RMDir "$INSTDIR\\bin"', remove)
        self.assertNotIn("/r", remove)

    def test_a_document_links_only_to_what_is_released(self):
        folder = self.stage("one", ("docs/a.md",))
        (folder / "README.md").write_text("[a](docs/a.md#part), [b](docs), [c](https://example.com/c), [d](docs/d.md)")
        self.assertEqual(list(release_parts.broken_links(folder)), ["README.md links to docs/d.md"])

    def test_the_documents_of_this_tree_link_only_to_what_is_released(self):
        installed = (TREE / "cmake/install.cmake").read_text(encoding="utf-8")
        documents = re.search(r"GLOB documents CONFIGURE_DEPENDS (.*?)\)", installed)[1].split()
        rows = [(words.split(), to) for words, to in re.findall(r"install\(FILES ([^$]*?) DESTINATION (\S+)\)", installed)]
        for patterns, to in [*rows, (documents, "docs")]:
            for path in (path for pattern in patterns for path in TREE.glob(pattern)):
                target = self.folder / "stage" / to / path.name
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(path, target)
        self.assertTrue((self.folder / "stage/docs/wire.md").exists())
        self.assertEqual(list(release_parts.broken_links(self.folder / "stage")), [])

    def test_sums_are_those_that_sha256sum_checks(self):
        folder = self.stage("one", ("a",))
        release_parts.sums(types.SimpleNamespace(folder=folder))
        wanted = "ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb  a\n"
        self.assertEqual((folder / "SHA256SUMS").read_text(), wanted)

    def test_the_version_is_that_of_the_project(self):
        self.assertRegex(release_parts.project_version(), r"^\d+\.\d+\.\d+$")


class BillOfMaterials(Staged):
    def setUp(self):
        super().setUp()
        missing = [c.package for c in release_parts.used_components()
                   if release_parts.third_party.version(c) is None]
        if missing:
            self.skipTest(f"not installed: {missing}")
        self.made = release_parts.sbom_of(self.stage("one"), "0" * 40)

    def wrong(self, change):
        document = copy.deepcopy(self.made)
        change(document)
        return " ".join(release_parts.wrong_in(document))

    def test_what_is_made_is_valid_and_names_everything(self):
        self.assertEqual(list(release_parts.wrong_in(self.made)), [])
        names = {package["name"] for package in self.made["packages"]}
        self.assertLessEqual({"vyr", "toml++", "uPlot", "mingw-w64 runtime"}, names)
        self.assertEqual(self.made, release_parts.sbom_of(self.stage("other"), "0" * 40))
        for package in self.made["packages"][1:]:  # a plus sign in a package URL stands for a space to some
            self.assertRegex(package["externalRefs"][0]["referenceLocator"], r"^pkg:(npm|deb/debian)/[\w.-]+@[\w.:~%-]+$")

    def test_what_lacks_a_required_field_is_not(self):
        for key in ("spdxVersion", "dataLicense", "name", "documentNamespace", "creationInfo"):
            self.assertIn(f"no {key}", self.wrong(lambda d: d.pop(key)))
        self.assertIn("no downloadLocation", self.wrong(lambda d: d["packages"][1].pop("downloadLocation")))
        self.assertIn("has no SHA1", self.wrong(lambda d: d["files"][0]["checksums"].pop(0)))

    def test_what_contradicts_itself_is_not(self):
        self.assertIn("verification code", self.wrong(lambda d: d["packages"][0]["hasFiles"].pop()))
        self.assertIn("does not exist", self.wrong(lambda d: d["relationships"][0].update(relatedSpdxElement="no")))
        self.assertIn("names two", self.wrong(lambda d: d["packages"][1].update(SPDXID="SPDXRef-vyr")))
        self.assertIn("not a time", self.wrong(lambda d: d["creationInfo"].update(created="2026-11-22")))
        self.assertIn("describes nothing", self.wrong(lambda d: d["relationships"].pop(0)))
        self.assertIn("no licence", self.wrong(lambda d: d["packages"][1].update(licenseDeclared="MIT, or so")))


if __name__ == "__main__":
    unittest.main()
