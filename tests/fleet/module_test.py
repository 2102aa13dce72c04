#!/usr/bin/python3
"""The module of the fleet's collection, with the real bundlectl and a collection without a server: what it changes, what check
mode and diff mode show, and that the second time changes nothing.

usage: module_test.py MODULE BUNDLECTL
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

try:
    import ansible.module_utils.basic  # noqa: F401 the only library that the module needs
except ImportError:
    print("skipped: there is no ansible-core; script/install-dependencies --fleet")
    sys.exit(77)

MODULE, BUNDLECTL = sys.argv[1:3]
MANIFEST = "[global]\nbundle_name = player\nbundle_load_mode = 0\n\n[item]\nitem_name = player.sh\n"


class AModule(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = scratch.name
        self.collection = self.at("collection")
        os.mkdir(self.collection)
        self.control("keygen", self.at("release"))

    def at(self, *names):
        return os.path.join(self.scratch, *names)

    def control(self, *arguments):
        subprocess.run([BUNDLECTL] + list(arguments), check=True, stdout=subprocess.DEVNULL)

    def source(self, version):
        """A bundle's directory."""
        directory = self.at("source-%d" % version)
        os.makedirs(os.path.join(directory, "bin"))
        for name, text in (("BundleManifest.ini", MANIFEST), ("bin/player.sh", "sleep 1\n"), ("bin/version", "%d\n" % version)):
            with open(os.path.join(directory, name), "w", encoding="utf-8") as stream:
                stream.write(text)
        return directory

    def archive(self, version):
        archive = self.at("player-%d.tar.gz" % version)
        self.control("pack", self.source(version), "-o", archive, "--key", self.at("release.key"))
        return archive

    def run_module(self, check=False, diff=False, **parameters):
        arguments = dict(parameters, collection=self.collection, bundlectl=BUNDLECTL, soak="0", wait="0", _ansible_check_mode=check,
                         _ansible_diff=diff, _ansible_remote_tmp=self.at("remote"))
        ended = subprocess.run([sys.executable, MODULE], input=json.dumps({"ANSIBLE_MODULE_ARGS": arguments}), text=True,
                               capture_output=True, check=False, timeout=60)
        self.assertIn("{", ended.stdout, ended.stderr)
        return json.loads(ended.stdout)

    def installed_version(self):
        with open(os.path.join(self.collection, "player", "bin", "version"), encoding="utf-8") as stream:
            return int(stream.read())

    def test_installs_once(self):
        archive = self.archive(1)
        said = self.run_module(src=archive, key=self.at("release.pub"))
        self.assertTrue(said["changed"], said)
        self.assertEqual(said["version"], 1)
        self.assertEqual(self.installed_version(), 1)
        self.assertFalse(self.run_module(src=archive, key=self.at("release.pub"))["changed"])

    def test_installs_a_directory_once(self):
        source = self.source(1)
        self.assertTrue(self.run_module(src=source)["changed"])
        self.assertFalse(self.run_module(src=source)["changed"])

    def test_ignores_what_items_have_written(self):
        archive = self.archive(1)
        self.run_module(src=archive)
        os.mkdir(os.path.join(self.collection, "player", "data"))
        with open(os.path.join(self.collection, "player", "data", "notes"), "w", encoding="utf-8") as stream:
            stream.write("x")
        self.assertFalse(self.run_module(src=archive)["changed"])

    def test_plans_an_installation_in_check_mode(self):
        for source in (self.archive(1), self.source(2)):
            said = self.run_module(check=True, src=source)
            self.assertTrue(said["changed"])
            self.assertEqual(said["plan"][0], "load player %s/player" % self.collection)
            self.assertTrue(any(line.startswith("start player") for line in said["plan"]), said["plan"])
            self.assertEqual(os.listdir(self.collection), [])

    def test_plans_an_update_and_shows_the_files_in_check_and_diff_mode(self):
        self.run_module(src=self.archive(1))
        said = self.run_module(check=True, diff=True, src=self.archive(2))
        self.assertTrue(said["changed"])
        self.assertEqual(said["plan"][0], "update player")
        self.assertEqual(len(said["diff"]), 1, said["diff"])
        self.assertRegex(said["diff"][0]["before"], r"\Abin/version 0644 [0-9a-f]{64}\n\Z")
        self.assertRegex(said["diff"][0]["after"], r"\Abin/version 0644 [0-9a-f]{64}\n\Z")
        self.assertNotIn("drift", said)
        self.assertEqual(self.installed_version(), 1)

    def test_tells_in_diff_mode_where_the_installed_bundle_is_not_as_shipped(self):
        archive = self.archive(1)
        self.run_module(src=archive)
        with open(os.path.join(self.collection, "player", "bin", "version"), "a", encoding="utf-8") as stream:
            stream.write("x")
        said = self.run_module(check=True, diff=True, src=archive)
        self.assertTrue(said["changed"])
        self.assertEqual(said["drift"], ["bin/version differs from what was shipped."])
        self.assertIn(said["drift"][0], said["diff"][1]["prepared"])

    def test_refuses_in_check_mode_an_archive_of_another_key(self):
        archive = self.archive(1)
        self.control("keygen", self.at("other"))
        said = self.run_module(check=True, src=archive, key=self.at("other.pub"))
        self.assertTrue(said["failed"])
        self.assertIn("sign", said["msg"])
        self.assertFalse(said["changed"])

    def test_removes_once(self):
        self.run_module(src=self.archive(1))
        said = self.run_module(check=True, name="player", state="absent")
        self.assertTrue(said["changed"])
        self.assertIn("unload player", said["plan"])
        self.assertEqual(self.installed_version(), 1)
        self.assertTrue(self.run_module(name="player", state="absent")["changed"])
        self.assertEqual(os.listdir(self.collection), [])
        self.assertFalse(self.run_module(name="player", state="absent")["changed"])

    def test_goes_back_to_a_version_once(self):
        self.run_module(src=self.archive(1))
        self.run_module(src=self.archive(2))
        self.assertTrue(self.run_module(check=True, name="player", state="rolled_back", version=1)["changed"])
        self.assertEqual(self.installed_version(), 2)
        self.assertTrue(self.run_module(name="player", state="rolled_back", version=1)["changed"])
        self.assertEqual(self.installed_version(), 1)
        self.assertFalse(self.run_module(name="player", state="rolled_back", version=1)["changed"])

    def test_refuses_a_bundle_of_another_name(self):
        said = self.run_module(src=self.archive(1), name="radio")
        self.assertTrue(said["failed"])
        self.assertIn('is the bundle "player", not "radio"', said["msg"])

    def test_names_a_source_that_is_no_bundle(self):
        said = self.run_module(src=self.at("missing.tar.gz"))
        self.assertTrue(said["failed"])
        self.assertIn("missing.tar.gz is no bundle", said["msg"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
