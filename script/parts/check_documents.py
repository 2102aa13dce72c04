"""Finds faults in Markdown pages. Prints a line for each finding, and ends with status 1 when there are any.

usage: check_documents.py ROOT PAGE...

- a heading, table or code fence that a re-wrap has moved into running text
- a link to a file or heading that does not exist
- a command, in a code block or in running text, that names a script of the project which does not exist, or an option
  that the script's --help does not mention
- the name of a test that does not exist
"""

import functools
import pathlib
import re
import subprocess
import sys

from markdown_it import MarkdownIt

BROKEN = [
    (re.compile(r"\S[ \n]#{2,6} [A-Z]"), "a heading inside running text"),
    (re.compile(r"\|\s*:?-{3,}:?\s*\|"), "a table inside running text"),
    (re.compile(r"```"), "a code fence inside running text"),
]
# A bundle has a folder "script" too. Its files end in ".sh", and no script of this project does.
SCRIPT = re.compile(r"(?<![\w/.])(script/(?:parts/)?[\w-]+|\.ci/run)(?![\w./])((?: +[^\s`|;&()]+)*)")
TEST_NAME = re.compile(r"[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+")
SHELL = {"sh", "bash", "text", ""}


def slug(heading):
    """The anchor of a heading on the usual hosts of Git projects."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


@functools.lru_cache(maxsize=None)
def tokens_of(page):
    return MarkdownIt("commonmark").enable("table").parse(page.read_text())


@functools.lru_cache(maxsize=None)
def anchors_of(page):
    tokens = tokens_of(page)
    return {slug(text_of(following)) for token, following in zip(tokens, tokens[1:]) if token.type == "heading_open"}


def text_of(inline):
    return "".join(child.content for child in inline.children)


@functools.lru_cache(maxsize=None)
def help_of(script):
    """The help text of a script; empty when it has no --help."""
    if "--help" not in script.read_text():
        return ""
    result = subprocess.run([script, "--help"], capture_output=True, text=True, timeout=60, check=False)
    parts = [result.stdout]
    for part in re.findall(r"script/parts/[\w-]+", script.read_text()):
        path = script.parent / part.removeprefix("script/")
        if path.exists() and path != script and path.suffix == "":
            parts.append(help_of(path))
    return "\n".join(parts)


@functools.lru_cache(maxsize=None)
def tests_of(root):
    """The names of all tests, "Suite.Name"."""
    sources = (file.read_text() for file in (root / "tests").rglob("*") if file.suffix in {".cpp", ".txt"})
    pattern = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)|\b([A-Z]\w+\.[A-Z]\w+)\b")
    return {found[2] or f"{found[0]}.{found[1]}" for text in sources for found in pattern.findall(text)}


class Page:
    def __init__(self, root, path):
        self.root = root
        self.path = path
        self.findings = []

    def find(self, line, what):
        self.findings.append(f"{self.path.relative_to(self.root)}:{line}: {what}")

    def check(self):
        for token in tokens_of(self.path):
            line = token.map[0] + 1 if token.map else 0
            if token.type == "fence" and token.info.split(" ")[0] in SHELL:
                self.check_commands(line, token.content)
            elif token.type == "inline":
                self.check_inline(line, token)
        return self.findings

    def check_inline(self, line, token):
        running = "".join("" if child.type == "code_inline" else child.content or "\n" for child in token.children)
        for pattern, what in BROKEN:
            if pattern.search(running):
                self.find(line, what)
        for child in token.children:
            if child.type == "link_open":
                self.check_link(line, child.attrs["href"])
            elif child.type == "code_inline":
                self.check_commands(line, child.content)
                self.check_test(line, child.content)

    def check_test(self, line, name):
        if "testing" in self.path.parts and TEST_NAME.fullmatch(name) and name not in tests_of(self.root):
            self.find(line, f"there is no test {name}")

    def check_link(self, line, target):
        if re.match(r"[a-z]+:", target):
            return
        name, _, anchor = target.partition("#")
        file = (self.path.parent / name).resolve() if name else self.path
        if not file.exists():
            self.find(line, f"a link to {name}, which does not exist")
        elif anchor and file.suffix == ".md" and anchor not in anchors_of(file):
            self.find(line, f"a link to {target}, where there is no such heading")

    def check_commands(self, line, text):
        for name, arguments in SCRIPT.findall(text.replace("\\\n", " ")):
            script = self.root / name
            if not script.exists():
                self.find(line, f"{name} does not exist")
            else:
                for option in re.findall(r"(?<![\w-])(--[a-z][a-z-]+)", arguments):
                    if option not in help_of(script):
                        self.find(line, f"{name} has no option {option}")


def main(root, *pages):
    root = pathlib.Path(root).resolve()
    findings = [finding for page in pages for finding in Page(root, pathlib.Path(page).resolve()).check()]
    print("\n".join(findings), end="\n" if findings else "")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
