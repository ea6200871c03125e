"""Debian packages of this tree: how they are made, and what is in them."""

import os
import pathlib
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests" / "system"))

from zonetest import BUILD  # noqa: E402 (the path comes first)

BUILD_TIME = 1200  # seconds, on a machine that is busy with everything else too
DEADLINE = 60
NAME = "zone-manager"


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True, timeout=DEADLINE).stdout


class Package:
    """A package file."""

    def __init__(self, path):
        self.path = pathlib.Path(path)

    def field(self, name):
        return output_of("dpkg-deb", "--field", self.path, name).strip()

    @property
    def dependencies(self):
        """The names of the packages that it needs, of alternatives the first."""
        return {need.split()[0] for need in self.field("Depends").split(",")}

    @property
    def files(self):
        """Its files' paths with their modes as `ls` shows them."""
        lines = output_of("dpkg-deb", "--contents", self.path).splitlines()
        entries = [(line.split(None, 5)[5].lstrip("."), line.split(None, 1)[0]) for line in lines]
        return {path: mode for path, mode in entries if not path.endswith("/")}

    @property
    def owners(self):
        return {line.split()[1] for line in output_of("dpkg-deb", "--contents", self.path).splitlines()}

    @property
    def control_files(self):
        with tempfile.TemporaryDirectory() as directory:
            output_of("dpkg-deb", "--control", self.path, f"{directory}/control")
            return {path.name for path in pathlib.Path(directory, "control").iterdir()}

    def unpack(self, directory):
        output_of("dpkg-deb", "--extract", self.path, directory)
        return directory

    def newer(self, directory, version):
        """The same with another version and one more document."""
        content = pathlib.Path(directory) / version
        output_of("dpkg-deb", "--raw-extract", self.path, content)
        control = content / "DEBIAN" / "control"
        control.write_text(control.read_text().replace(f"\nVersion: {self.field('Version')}\n",
                                                       f"\nVersion: {version}\n"))
        (content / "usr/share/doc" / NAME / "newer").write_text(version)
        made = pathlib.Path(directory) / f"{NAME}_{version}.deb"
        output_of("dpkg-deb", "--root-owner-group", "--build", content, made)
        return Package(made)


class Workshop:
    """Makes each package once; the sources are compiled once for all of them."""

    def __init__(self, directory):
        self.directory = directory
        self._made = {}

    def package(self, *options):
        """The package for these options, made when it is first asked for."""
        if options not in self._made:
            self._made[options] = None
            self._made[options] = self.make("-".join(options) or "all", *options)
        assert self._made[options], "an earlier test told why it could not be made"
        return self._made[options]

    def make(self, folder, *options):
        environment = {
            **os.environ,
            "CMAKE_C_COMPILER_LAUNCHER": "ccache",
            "CMAKE_CXX_COMPILER_LAUNCHER": "ccache",
            # Each package is compiled in a directory of another name, with a home of its own.
            "CCACHE_BASEDIR": tempfile.gettempdir(),
            "CCACHE_DIR": str(BUILD / "tests" / "ccache"),
            "CCACHE_NOHASHDIR": "1",
        }
        output = self.directory / folder
        result = subprocess.run([PROJECT / "scripts" / "package", "--output", output, *options],
                                env=environment, capture_output=True, text=True, check=False,
                                timeout=BUILD_TIME)
        assert result.returncode == 0, result.stderr
        return Package(result.stdout.splitlines()[-1])
