"""The files of a source tree, as the checks see them."""

import functools
import os
import pathlib
import re

# What .gitignore names, and git's own.
NOT_OURS = {".git", "build", "__pycache__", ".pytest_cache", ".cache"}

CODE_SUFFIXES = {".c", ".cpp", ".h"}
SHELLS = re.compile(rb"#!\s*\S*/(?:env\s+)?(?:ba|da|k)?sh\b")
PYTHONS = re.compile(rb"#!\s*\S*/(?:env\s+)?python3?\b")

# A comment, a literal, or anything else up to the next of these.
TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      |(?P<raw>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)")
      |(?P<string>"(?:\\.|[^"\\\n])*")
      |(?P<character>(?<![0-9])'(?:\\[^\n']+|\\'|[^'\\\n])')""",
    re.DOTALL | re.VERBOSE)


def blank(text):
    return re.sub(r"[^\n]", " ", text)


class SourceFile:
    """One file of the tree; what is derived from its content is made once."""

    def __init__(self, root, name):
        self.name = name
        self.path = pathlib.PurePosixPath(name)
        self.content = (root / name).read_bytes()

    @property
    def is_code(self):
        return self.path.suffix in CODE_SUFFIXES

    @property
    def is_shell(self):
        return SHELLS.match(self.content) is not None

    @property
    def is_python(self):
        return self.path.suffix == ".py" or PYTHONS.match(self.content) is not None

    @functools.cached_property
    def text(self):
        """None when this is no text."""
        if b"\0" in self.content:
            return None
        try:
            return self.content.decode()
        except UnicodeDecodeError:
            return None

    @functools.cached_property
    def without_comments(self):
        """C or C++ with blanks for the comments; every line stays where it is."""
        return TOKEN.sub(lambda match: blank(match[0]) if match["comment"] else match[0], self.text)

    @functools.cached_property
    def bare(self):
        """C or C++ with blanks for comments, and for what stands between the quotes of literals."""
        def replaced(match):
            return blank(match[0]) if match["comment"] else match[0][0] + blank(match[0][1:-1]) + match[0][-1]
        return TOKEN.sub(replaced, self.text)

    def matches(self, expression, text):
        """Pairs of a line's number and a match."""
        for match in re.finditer(expression, text, re.MULTILINE):
            yield text.count("\n", 0, match.start()) + 1, match


class Tree:
    def __init__(self, root):
        self.root = pathlib.Path(root)

    @functools.cached_property
    def files(self):
        """Every regular file, by its name below the root."""
        found = {}
        for folder, subfolders, names in os.walk(self.root):
            subfolders[:] = sorted(set(subfolders) - NOT_OURS)
            for name in sorted(names):
                path = pathlib.Path(folder, name)
                if path.is_file() and not path.is_symlink():
                    relative = path.relative_to(self.root).as_posix()
                    found[relative] = SourceFile(self.root, relative)
        return found

    def code(self, *folders):
        """The C and C++ files below these folders."""
        return [file for file in self.files.values()
                if file.is_code and any(file.name.startswith(f"{folder}/") for folder in folders)]
