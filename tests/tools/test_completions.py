"""The completions for bash and zsh, typed into real shells on a terminal."""

import os
import pty
import select
import shlex
import subprocess
import time

import bus_fixtures
import pytest

COMPLETIONS = bus_fixtures.REPOSITORY / "packaging" / "completions"
PROMPT = b"ready> "
KILL_LINE = b"\x15"
ALL = b"\x18a"  # puts everything that is offered into the line
TELL = b"\x18l"  # writes the line to a file

BASH = """
PS1='ready> '
source {completions}/zonectl
bind '"\\C-xa": insert-completions'
bind -x '"\\C-xl": printf %s "$READLINE_LINE" >{told}.new; mv {told}.new {told}'
"""
ZSH = """
PROMPT='ready> '
fpath=({completions} $fpath)
autoload -Uz compinit
compinit -u -D
everything() {{ _main_complete; compstate[insert]=all }}
zle -C everything complete-word everything
tell() {{ print -rn -- "$BUFFER" >{told}.new; mv {told}.new {told} }}
zle -N tell
bindkey '^Xa' everything '^Xl' tell
"""


class Terminal:
    """A shell on a terminal, in a directory with one file."""

    def __init__(self, command, directory, address, programs):
        self.told = directory / "told"
        self.output = b""
        self.master, slave = pty.openpty()
        place = directory / "place"
        place.mkdir()
        (place / "some.log").write_text("")
        environment = bus_fixtures.environment(
            address, TERM="dumb", ZDOTDIR=str(directory), HOME=str(directory),
            PATH=f"{programs}:/usr/bin:/bin")
        self.process = subprocess.Popen(command, env=environment, cwd=place, stdin=slave, stdout=slave,
                                        stderr=slave, start_new_session=True)
        os.close(slave)
        # The shell has set the terminal up for the keys before it shows this.
        self.wait_until(lambda: PROMPT in self.output)

    def wait_until(self, condition):
        """Waits for it, and lets the shell print meanwhile."""
        end = time.monotonic() + bus_fixtures.DEADLINE
        while not condition():
            assert time.monotonic() < end, self.output.decode(errors="replace")
            if select.select([self.master], [], [], 0.01)[0]:
                self.output += os.read(self.master, 4096)

    def complete(self, line, key):
        """The line after the key."""
        os.write(self.master, line.encode() + key + TELL)
        self.wait_until(self.told.exists)
        line = self.told.read_text()
        self.told.unlink()
        os.write(self.master, KILL_LINE)
        return line

    def offered(self, line):
        """All words that are offered for the last one of the line."""
        before, _, _ = line.rpartition(" ")
        return self.complete(line, ALL).removeprefix(before).split()

    def close(self):
        self.process.kill()
        self.process.wait(bus_fixtures.DEADLINE)
        os.close(self.master)


def shell_command(shell, directory):
    """The command that starts a shell with our completion; its start-up file is in the directory."""
    words = {"completions": COMPLETIONS, "told": directory / "told"}
    if shell == "bash":
        (directory / "rc").write_text(BASH.format(**words))
        return ["bash", "--noprofile", "--rcfile", directory / "rc", "-i"]
    (directory / ".zshrc").write_text(ZSH.format(**words))
    return ["zsh", "-d", "-i"]


@pytest.fixture(params=["bash", "zsh"])
def open_terminal(request, tmp_path):
    opened = []

    def open_one(programs, address=""):
        command = shell_command(request.param, tmp_path)
        opened.append(Terminal(command, tmp_path, address, programs))
        return opened[-1]
    yield open_one
    for terminal in opened:
        terminal.close()


@pytest.fixture
def terminal(open_terminal, bus, service):
    return open_terminal(bus_fixtures.ZONECTL.parent, bus.address)


@pytest.mark.parametrize(("shell", "name"), [("bash", "zonectl"), ("zsh", "_zonectl")])
def test_the_shell_can_read_it(shell, name):
    result = subprocess.run([shell, "-n", COMPLETIONS / name], capture_output=True, text=True, check=False,
                            timeout=bus_fixtures.DEADLINE)
    assert (result.returncode, result.stderr) == (0, "")


def test_a_word_that_can_only_be_one_is_written_out(terminal):
    assert terminal.complete("zonectl unf", b"\t") == "zonectl unfreeze "
    assert terminal.complete("zonectl start na", b"\t") == "zonectl start nav "


def test_all_that_a_word_may_be_is_offered(terminal):
    assert terminal.offered("zonectl sta") == ["start", "status"]
    assert terminal.offered("zonectl --json status ") == ["brief", "guard", "icy", "media", "nav",
                                                             "stuck", "weak"]


def test_an_option_and_its_value_are_completed(terminal):
    assert terminal.complete("zonectl start --wa", b"\t") == "zonectl start --wait "
    assert terminal.complete("zonectl --color=al", b"\t") == "zonectl --color=always "
    assert terminal.complete("zonectl --color n", b"\t") == "zonectl --color never "


def test_where_zonectl_offers_nothing_there_are_files(terminal):
    assert terminal.complete("zonectl explain --file so", b"\t") == "zonectl explain --file some.log "


def test_the_middle_of_a_line_is_completed_by_what_is_before_it(terminal):
    line = terminal.complete("zonectl start med --wait" + "\x02" * 7, b"\t")
    assert line.split() == ["zonectl", "start", "media", "--wait"]


def test_an_odd_name_stays_one_word(open_terminal, tmp_path):
    odd = tmp_path / "bin" / "zonectl"
    odd.parent.mkdir()
    odd.write_text("#!/bin/sh\nprintf 'a b;c:d\\thelp: more\\n'\n")
    odd.chmod(0o755)
    line = open_terminal(odd.parent).complete("zonectl stop a", b"\t")
    assert shlex.split(line) == ["zonectl", "stop", "a b;c:d"]
