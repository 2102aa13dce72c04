#!/usr/bin/python
# SPDX-License-Identifier: MIT
"""Brings a bundle of a device into a state, by bundlectl."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
---
module: bundle
short_description: Install, remove or roll back a bundle of the bundle server
version_added: "0.1.0"
description:
  - Brings one bundle of a device into a state, by C(bundlectl).
  - A bundle that is installed runs before the task is done. When it does not run, or its items die, C(bundlectl put)
    goes back to the version before, and the task fails.
  - The task may be repeated at any time. Its connection may break at any time; the device then has the old bundle or
    the new one, whole.
author:
  - The Bundle Server authors (@bundle-server)
options:
  name:
    description:
      - The bundle's name, as in its manifest. For I(state=present) it is checked against the source.
    type: str
  state:
    description:
      - C(present) installs or updates the bundle from I(src).
      - C(absent) deletes it.
      - C(rolled_back) brings a former version back. This is not idempotent unless I(version) is given.
    type: str
    choices: [present, absent, rolled_back]
    default: present
  src:
    description:
      - For C(present), an archive that C(bundlectl pack) has made, or the directory of a bundle; on the device.
    type: path
  key:
    description:
      - For C(present), the public key, on the device, that must have signed the archive.
    type: path
  collection:
    description:
      - The collection, where it is not the server's.
    type: path
  version:
    description:
      - For C(rolled_back), the number of the version. Without it, the one before the present one.
    type: int
  keep:
    description:
      - For C(present), how many former versions to keep.
    type: int
    default: 3
  soak:
    description:
      - For C(present) and C(rolled_back), how long the bundle's items must live.
    type: str
    default: 10s
  wait:
    description:
      - How long to wait for the server, such as C(30s) or C(5m).
    type: str
    default: 30s
  bundlectl:
    description:
      - The command.
    type: str
    default: bundlectl
attributes:
  check_mode:
    support: full
  diff_mode:
    support: full
"""

EXAMPLES = r"""
- name: The player runs in its new version
  bundle_server.fleet.bundle:
    src: /var/cache/bundles/player-2.bundle
    key: /etc/bundle-server/release.pub

- name: The radio is gone
  bundle_server.fleet.bundle:
    name: radio
    state: absent

- name: The player is back in the version before
  bundle_server.fleet.bundle:
    name: player
    state: rolled_back
"""

RETURN = r"""
outcome:
  description: What became of the bundle, a word of C(bundlectl), such as C(active), C(went-back) or C(unchanged).
  returned: always
  type: str
version:
  description: The number of the version in force, where it has one.
  returned: when known
  type: int
drift:
  description: In diff mode, where the installed bundle differs from what was shipped, as C(bundlectl verify) tells it.
  returned: in diff mode, when there is such a difference
  type: list
  elements: str
plan:
  description: In check mode, what the server will do, as C(bundlectl plan) tells it where that is installed.
  returned: in check mode, when something would change
  type: list
  elements: str
details:
  description: Further sentences of C(bundlectl).
  returned: when there are some
  type: list
  elements: str
"""

import configparser
import hashlib
import json
import os
import shutil
import stat
import tarfile
import tempfile

from ansible.module_utils.basic import AnsibleModule

CONFIGURATION = "/etc/bundle-server/bundle-server.ini"
MANIFEST = "BundleManifest.ini"
# The files that bundlectl itself keeps in a bundle's root.
OWN_FILES = ("BundleContents", "BundleContents.sig", ".bundlectl")
# The difference covers the bundle's own files. Items write below other directories.
SHIPPED_FOLDERS = ("bin", "script")
LARGEST_MANIFEST = 1024 * 1024


def digest_of(stream):
    digest = hashlib.sha256()
    for block in iter(lambda: stream.read(1 << 20), b""):
        digest.update(block)
    return digest.hexdigest()


def contents_of_directory(directory):
    """Maps each path to a line of text that describes the entry."""
    contents = {}
    for folder, folders, files in os.walk(directory):
        for name in folders + files:
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, directory)
            if relative in OWN_FILES:
                continue
            status = os.lstat(path)
            if stat.S_ISLNK(status.st_mode):
                contents[relative] = "link to " + os.readlink(path)
            elif stat.S_ISREG(status.st_mode):
                with open(path, "rb") as stream:
                    contents[relative] = "%04o %s" % (status.st_mode & 0o7777, digest_of(stream))
            elif stat.S_ISDIR(status.st_mode):
                contents[relative] = "directory"
            else:
                contents[relative] = "special file"
    return contents


def contents_of_archive(archive):
    contents = {}
    with tarfile.open(archive) as opened:
        for member in opened:
            path = os.path.normpath(member.name)
            if path in OWN_FILES or path == ".":
                continue
            if member.isreg():
                contents[path] = "%04o %s" % (member.mode & 0o7777, digest_of(opened.extractfile(member)))
            elif member.issym():
                contents[path] = "link to " + member.linkname
            elif member.isdir():
                contents[path] = "directory"
            else:
                contents[path] = "special file"
    return contents


def unpack(archive, directory):
    """Unpacks the folders and plain files of an archive, for plan. Skips what leads out of the directory."""
    with tarfile.open(archive) as opened:
        for member in opened:
            path = os.path.normpath(member.name)
            if os.path.isabs(path) or path.split(os.sep)[0] == os.pardir:
                continue
            path = os.path.join(directory, path)
            if member.isdir() and not os.path.isdir(path):
                os.makedirs(path)
            elif member.isreg():
                if not os.path.isdir(os.path.dirname(path)):
                    os.makedirs(os.path.dirname(path))
                with open(path, "wb") as stream:
                    shutil.copyfileobj(opened.extractfile(member), stream)
                os.chmod(path, member.mode & 0o777)


def name_in(manifest):
    """The bundle's name; empty: none. The server ignores the case of keys, and the last of a key counts."""
    parser = configparser.RawConfigParser(strict=False, allow_no_value=True, delimiters=("=",), comment_prefixes=(";", "#"))
    try:
        parser.read_string(manifest)
    except configparser.Error:
        return ""
    for section in parser.sections():
        if section.lower() == "global" and parser.has_option(section, "bundle_name"):
            return (parser.get(section, "bundle_name") or "").strip()
    return ""


def manifest_of(source):
    if os.path.isdir(source):
        with open(os.path.join(source, MANIFEST), "rb") as stream:
            return stream.read(LARGEST_MANIFEST).decode("utf-8", "surrogateescape")
    with tarfile.open(source) as archive:
        for member in archive:
            if os.path.normpath(member.name) == MANIFEST:
                return archive.extractfile(member).read(LARGEST_MANIFEST).decode("utf-8", "surrogateescape")
    return ""


class Bundle(object):
    def __init__(self, module):
        self.module = module
        self.parameters = module.params
        self.collection = self.parameters["collection"] or self.configured_collection()
        self.result = {"changed": False, "outcome": "unchanged"}

    def configured_collection(self):
        parser = configparser.RawConfigParser(strict=False, allow_no_value=True)
        try:
            parser.read(CONFIGURATION)
            return parser.get("global", "bundle_collection_dir")
        except configparser.Error:
            self.module.fail_json(
                msg="%s names no collection: install the bundle server, or give \"collection\"." % CONFIGURATION
            )

    def directories(self, name):
        """Of the bundles of that name. More than one is a fault, of which the server has taken one."""
        found = []
        try:
            entries = sorted(os.listdir(self.collection))
        except OSError as error:
            self.module.fail_json(msg="the collection cannot be read: %s" % error)
        for entry in entries:
            directory = os.path.join(self.collection, entry)
            try:
                if name_in(manifest_of(directory)) == name:
                    found.append(directory)
            except (OSError, tarfile.TarError):
                pass  # no bundle
        return found

    def control(self, verb, arguments):
        """Runs bundlectl. Returns its JSON output and its status."""
        command = [self.parameters["bundlectl"], verb, "--json"]
        if self.parameters["collection"]:
            command += ["--collection", self.collection]
        status, output, errors = self.module.run_command(command + arguments, expand_user_and_vars=False)
        try:
            said = json.loads(output)
        except ValueError:
            self.module.fail_json(
                msg="%s %s ends with status %d: %s" % (self.parameters["bundlectl"], verb, status, (errors or output).strip()),
                **dict(self.result, outcome="failed")
            )
        return said, status

    def change(self, verb, arguments):
        """Runs a verb of bundlectl that changes the collection, and takes over what it says."""
        self.take(*self.control(verb, ["--wait", self.parameters["wait"]] + arguments))

    def take(self, said, status):
        self.result["outcome"] = said.get("outcome", "")
        self.result["details"] = said.get("details", [])
        if said.get("version") is not None:
            self.result["version"] = said["version"]
        if status != 0:
            self.module.fail_json(msg=said.get("text", "status %d" % status), **self.result)

    def verify(self, arguments):
        """The JSON output of bundlectl verify; empty without one."""
        command = [self.parameters["bundlectl"], "verify", "--json"]
        _status, output, _errors = self.module.run_command(command + arguments, expand_user_and_vars=False)
        try:
            return json.loads(output)
        except ValueError:
            return {}

    def show(self, before, after, installed):
        """In diff mode, the files that differ, and where the installed bundle differs from what was shipped."""
        paths = sorted(path for path in set(before) | set(after) if before.get(path) != after.get(path))
        self.result["diff"] = [{
            "before": "".join("%s %s\n" % (path, before[path]) for path in paths if path in before),
            "after": "".join("%s %s\n" % (path, after[path]) for path in paths if path in after),
            "before_header": "installed",
            "after_header": "to be installed",
        }]
        # A bundle that was not packed has no list for the comparison.
        if not self.module._diff or not installed or not os.path.exists(os.path.join(installed[0], OWN_FILES[0])):
            return
        drift = self.verify([installed[0]]).get("details", [])
        if drift:
            self.result["drift"] = drift
            self.result["diff"].append({"prepared": "installed, and not as shipped:\n%s\n" % "\n".join(drift)})

    def plan(self, *change):
        """What the server will do, if the verb is installed."""
        command = [self.parameters["bundlectl"], "plan", self.collection, "--after"] + list(change)
        status, output, _errors = self.module.run_command(command, expand_user_and_vars=False)
        if status in (0, 1):
            self.result["plan"] = output.splitlines()

    def plan_source(self, change, source, name):
        """The plan for a source. It must be a directory with the name that it will have in the collection."""
        scratch = tempfile.mkdtemp(dir=self.module.tmpdir)
        try:
            directory = os.path.join(scratch, name)
            if os.path.isdir(source):
                os.symlink(os.path.abspath(source), directory)
            else:
                os.mkdir(directory)
                unpack(source, directory)
            self.plan(change, directory)
        finally:
            shutil.rmtree(scratch)

    def present(self):
        source = self.parameters["src"]
        try:
            name = name_in(manifest_of(source))
            wanted = contents_of_directory(source) if os.path.isdir(source) else contents_of_archive(source)
        except (OSError, tarfile.TarError) as error:
            self.module.fail_json(msg="%s is no bundle: %s" % (source, error), **self.result)
        if not name or self.parameters["name"] not in (None, name):
            self.module.fail_json(
                msg="%s is the bundle \"%s\", not \"%s\"" % (source, name, self.parameters["name"]), **self.result
            )
        installed = self.directories(name)
        found = contents_of_directory(installed[0]) if installed else {}
        # Files that items have written are not in the source.
        found = {
            path: what for path, what in found.items()
            if path in wanted or os.sep not in path and what != "directory" or path.split(os.sep)[0] in SHIPPED_FOLDERS
        }
        self.result["changed"] = found != wanted
        self.show(found, wanted, installed)
        if not self.result["changed"]:
            return
        if self.module.check_mode:
            self.require_signature(source)
            # The base name: put refuses a name with a slash.
            directory = os.path.basename(installed[0] if installed else name) or "bundle"
            self.plan_source("update" if installed else "add", source, directory)
            return
        arguments = ["--soak", self.parameters["soak"], "--keep", str(self.parameters["keep"])]
        if self.parameters["key"]:
            arguments += ["--key", self.parameters["key"]]
        self.change("put", arguments + [source])

    def require_signature(self, source):
        """Does the same as put, which is not run in check mode."""
        if not self.parameters["key"]:
            return
        said = self.verify(["--key", self.parameters["key"], source])
        if said.get("outcome") != "good":
            self.result["changed"] = False
            self.module.fail_json(msg=said.get("text", "%s cannot be verified" % source), **self.result)

    def absent(self):
        name = self.parameters["name"]
        installed = self.directories(name)
        self.result["changed"] = bool(installed)
        self.show(contents_of_directory(installed[0]) if installed else {}, {}, installed)
        if not installed:
            return
        if self.module.check_mode:
            self.plan("delete", name)
            return
        self.change("remove", [name])

    def rolled_back(self):
        arguments = [self.parameters["name"]]
        said, status = self.control("versions", arguments)
        if status != 0:
            self.take(said, status)
        in_force = [version["number"] for version in said.get("versions", []) if version["in_force"]]
        wanted = self.parameters["version"]
        if wanted is not None and wanted in in_force:
            self.result["version"] = wanted
            return
        self.result["changed"] = True
        if self.module.check_mode:
            return
        if wanted is not None:
            arguments += ["--to", str(wanted)]
        self.change("rollback", ["--soak", self.parameters["soak"]] + arguments)


def main():
    module = AnsibleModule(
        argument_spec={
            "name": {"type": "str"},
            "state": {"type": "str", "choices": ["present", "absent", "rolled_back"], "default": "present"},
            "src": {"type": "path"},
            "key": {"type": "path", "no_log": False},
            "collection": {"type": "path"},
            "version": {"type": "int"},
            "keep": {"type": "int", "default": 3},
            "soak": {"type": "str", "default": "10s"},
            "wait": {"type": "str", "default": "30s"},
            "bundlectl": {"type": "str", "default": "bundlectl"},
        },
        required_if=[("state", "present", ["src"]), ("state", "absent", ["name"]), ("state", "rolled_back", ["name"])],
        supports_check_mode=True,
    )
    bundle = Bundle(module)
    getattr(bundle, module.params["state"])()
    module.exit_json(**bundle.result)


if __name__ == "__main__":
    main()
