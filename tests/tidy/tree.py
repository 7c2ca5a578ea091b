"""The files of the tree, and the findings of the rules."""
import dataclasses
import functools
import pathlib
import subprocess

import cpp


@dataclasses.dataclass(frozen=True)
class Finding:
    path: str
    line: int  # 0: the file as a whole
    message: str
    warning: bool = False

    def __str__(self):
        place = f"{self.path}:{self.line}" if self.line else self.path
        return f"{place}: {'warning: ' if self.warning else ''}{self.message}"


class Tree:
    """All files under version control, and new ones that are not ignored."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self.paths = sorted(self._list())

    def _list(self):
        git = ["git", "-C", str(self.root), "ls-files", "-z", "-co", "--exclude-standard"]
        try:
            listed = subprocess.run(git, capture_output=True, check=True).stdout.decode()
            names = listed.split("\0")
        except (OSError, subprocess.CalledProcessError):  # not a repository: an unpacked archive
            names = [p.relative_to(self.root).as_posix() for p in self.root.rglob("*")]
            names = [n for n in names if not n.startswith(("build/", ".git/"))]
        return {n for n in names if n and (self.root / n).is_file()}

    @functools.lru_cache(maxsize=None)
    def text(self, path):
        return (self.root / path).read_text(encoding="utf-8", errors="surrogateescape")

    @functools.lru_cache(maxsize=None)
    def code(self, path):
        """The source with its comments and the content of its literals blanked."""
        return cpp.blank(self.text(path), literals=True)

    @functools.lru_cache(maxsize=None)
    def code_and_literals(self, path):
        return cpp.blank(self.text(path), literals=False)

    def cpp_files(self, folder=""):
        return [p for p in self.paths if p.startswith(folder) and p.endswith((".cpp", ".h"))]
