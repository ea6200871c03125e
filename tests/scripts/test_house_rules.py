"""Each rule of scripts/lint.d/house-rules: what it finds in a small tree, and what it lets pass."""

import pathlib
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "lint.d" / "house-rules"

# A tree that every rule is content with.
GOOD = {
    "source/Common/Clock.cpp": '#include "Common/Clock.h"\n',
    "include_internal/Common/Clock.h": "#pragma once\n",
    "include_internal/Common/Log.h": '#include "platform/log/platform_log.h"\n',
    "include_internal/Common/Handles.h": "#include <gio/gio.h>\n",
    "tests/Common/ClockTest.cpp": '#include "Common/Clock.h"\n',
    "source/ZoneCore/Zone.cpp": '#include "DBusCore/Door.h"\n#include "ZoneCore/Zone.h"\n',
    "include_internal/ZoneCore/Zone.h": '#include "ContainerCore/Box.h"\n',
    "tests/ZoneCore/ZoneStartTest.cpp": '#include "ZoneCore/Zone.h"\n',
    "source/ContainerCore/Box.cpp": '#include "ContainerCore/Box.h"\n',
    "include_internal/ContainerCore/Box.h": "#include <lxc/lxccontainer.h>\n",
    "tests/ContainerCore/BoxTest.cpp": "",
    "source/DBusCore/Door.cpp": '#include "ZoneCore/Zone.h"\n',
    "include_internal/DBusCore/Door.h": "#include <gio/gio.h>\n",
    "tests/DBusCore/DoorTest.cpp": "",
    "source/main/main.cpp": '#include "platform/watchdog/watchdog.h"\n#include "ZoneCore/Zone.h"\n',
    "platform/log/platform_log.h": "#pragma once\n",
    "platform/watchdog/watchdog.h": "#pragma once\n",
    "platform/watchdog/watchdog.cpp": '#include "platform/watchdog/watchdog.h"\n',
    "tools/zonectl/Commands.h": '#include "Output/Table.h"\n',
    "tools/zonectl/Output/Table.h": '#include "Common/Handles.h"\n',
    "tools/zonectl/Output/Table.cpp": '#include "Output/Table.h"\n',
    "tools/zonectl/Watch/Watch.h": '#include "Output/Table.h"\n',
    "tools/zonectl/Watch/Watch.cpp": '#include "Commands.h"\n#include "Watch/Watch.h"\n',
    "tests/tools/TableTest.cpp": '#include "Output/Table.h"\n',
}


@pytest.fixture
def tree(tmp_path):
    for name, text in GOOD.items():
        write(tmp_path, name, text)
    return tmp_path


def write(tree, name, text):
    path = tree / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text.encode())


def check(tree, *options):
    return subprocess.run([SCRIPT, *options, tree], capture_output=True, text=True, timeout=60, check=False)


def test_a_good_tree_is_clean(tree):
    result = check(tree)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")



def misspelt(name, line, header):
    return (f'{name}:{line}: "{header}" is no header as this project spells them, '
            'such as "ZoneCore/Zone.h" or "platform/log/platform_log.h"')


# A file of the good tree, or a further one, with another content, and all that is then found.
BAD = {
    # Who may include whom.
    "Common knows no zone": (
        "source/Common/Clock.cpp", '\n#include "ZoneCore/Zone.h"\n',
        ["source/Common/Clock.cpp:2: Common may not include ZoneCore/Zone.h"]),
    "Common knows two of the platform's parts": (
        "source/Common/Clock.cpp", '#include "platform/launcher/x.h"\n',
        ["source/Common/Clock.cpp:1: Common may not include platform/launcher/x.h",
         misspelt("source/Common/Clock.cpp", 1, "platform/launcher/x.h")]),
    "ContainerCore knows no zone": (
        "source/ContainerCore/Box.cpp", '#include "ZoneCore/Zone.h"\n',
        ["source/ContainerCore/Box.cpp:1: ContainerCore may not include ZoneCore/Zone.h"]),
    "ContainerCore knows no bus": (
        "source/ContainerCore/Box.cpp", '#include "DBusCore/Door.h"\n',
        ["source/ContainerCore/Box.cpp:1: ContainerCore may not include DBusCore/Door.h"]),
    "headers go round in no circle": (
        "include_internal/ZoneCore/Zone.h", '#include "DBusCore/Door.h"\n',
        ["include_internal/ZoneCore/Zone.h:1: ZoneCore may not include DBusCore/Door.h"]),
    "nobody knows main": (
        "source/DBusCore/Door.cpp", '#include "main/Lock.h"\n',
        [misspelt("source/DBusCore/Door.cpp", 1, "main/Lock.h"),
         "source/DBusCore/Door.cpp:1: DBusCore may not include main/Lock.h"]),
    "the platform does not know the daemon": (
        "platform/watchdog/watchdog.cpp", '#include "Common/Clock.h"\n',
        ["platform/watchdog/watchdog.cpp:1: platform may not include Common/Clock.h"]),
    "the tools know Common alone": (
        "tools/zonectl/Output/Table.cpp", '#include "ZoneCore/Zone.h"\n',
        ["tools/zonectl/Output/Table.cpp:1: Output may not include ZoneCore/Zone.h"]),
    "the client's folders have an order": (
        "tools/zonectl/Output/Table.cpp", '#include "Watch/Watch.h"\n',
        ["tools/zonectl/Output/Table.cpp:1: Output may not include Watch/Watch.h"]),
    "the table of commands is for sources": (
        "tools/zonectl/Watch/Watch.h", '#include "Commands.h"\n',
        ["tools/zonectl/Watch/Watch.h:1: Watch may not include Commands.h"]),
    "a new folder of the client needs a decision": (
        "tools/zonectl/Extra/Extra.h", "#pragma once\n",
        ["tools/zonectl/Extra/Extra.h:1: nobody has decided what the folder Extra may include"]),
    "a new folder needs a decision": (
        "include_internal/Extra/Log.h", "#pragma once\n",
        ["include_internal/Extra/Log.h:1: has no source/Extra/Log.cpp",
         "include_internal/Extra/Log.h:1: nobody has decided what the folder Extra may include"]),
    # Foreign headers.
    "gio": (
        "source/ZoneCore/Zone.cpp", "#include <gio/gio.h>\n",
        ["source/ZoneCore/Zone.cpp:1: gio/gio.h is for DBusCore and the tools alone"]),
    "GDBus by way of another header": (
        "source/ZoneCore/Zone.cpp", "// g_dbus_ok()\nvoid f()\n{\n    g_bus_get_sync();\n}\n",
        ["source/ZoneCore/Zone.cpp:4: g_bus_get_sync: GDBus is for DBusCore and the tools alone"]),
    "liblxc": (
        "source/ZoneCore/Zone.cpp", "#include <lxc/lxccontainer.h>\n",
        ["source/ZoneCore/Zone.cpp:1: lxc/lxccontainer.h is for ContainerCore, "
         "the factory and the registry"]),
    # The log.
    "the log service's header": (
        "source/ZoneCore/Zone.cpp", '#include "platform/log/platform_log.h"\n',
        ["source/ZoneCore/Zone.cpp:1: platform/log/platform_log.h is for Common/Log.h alone"]),
    "the log service's call": (
        "source/ZoneCore/Zone.cpp",
        'const char* text = "platform_log_write(";\nint i = platform_log_write(1);\n',
        ["source/ZoneCore/Zone.cpp:2: platform_log_write is for the macros of Common/Log.h alone"]),
    "a format that is no literal": (
        "source/ZoneCore/Zone.cpp", 'ZLOGE("good %d", 1);\nZLOGE(\n    "good");\nZLOGE(text);\n',
        ["source/ZoneCore/Zone.cpp:4: the format of ZLOGE is no literal"]),
    "the macro behind the macros": (
        "source/ZoneCore/Zone.cpp", 'ZLOG("31", "text");\n',
        ["source/ZoneCore/Zone.cpp:1: ZLOG is for the five macros of Common/Log.h alone"]),
    "the console": (
        "source/ZoneCore/Zone.cpp",
        'std::snprintf(a, 1, "printf(");\nstd::printf("x");\n/* printf(\n"x") */ g_print("x");\n'
        'std::cerr << 1;\n',
        ["source/ZoneCore/Zone.cpp:2: printf: write to the log, by the macros of Common/Log.h",
         "source/ZoneCore/Zone.cpp:4: g_print: write to the log, by the macros of Common/Log.h",
         "source/ZoneCore/Zone.cpp:5: std::cerr: write to the log, by the macros of Common/Log.h"]),
    # Pairs.
    "a source without a header": (
        "source/ZoneCore/ZoneStart.cpp", "",
        ["source/ZoneCore/ZoneStart.cpp:1: has no include_internal/ZoneCore/ZoneStart.h"]),
    "a header without a source": (
        "include_internal/Common/Lonely.h", "#pragma once\n",
        ["include_internal/Common/Lonely.h:1: has no source/Common/Lonely.cpp"]),
    "an exception that is none any more": (
        "include_internal/main/main.h", "#pragma once\n",
        ["source/main/main.cpp:1: has include_internal/main/main.h: house-rules need no exception"]),
    # Spelling.
    "a path that starts at the wrong place": (
        "source/ZoneCore/Zone.cpp",
        '#include "include_internal/ZoneCore/Zone.h"\n#include "../Common/Clock.h"\n#include "Zone.h"\n',
        [finding
         for line, name in ((1, "include_internal/ZoneCore/Zone.h"), (2, "../Common/Clock.h"), (3, "Zone.h"))
         for finding in (misspelt("source/ZoneCore/Zone.cpp", line, name),
                         f"source/ZoneCore/Zone.cpp:{line}: ZoneCore may not include {name}")]),
    "own headers in angles": (
        "source/ZoneCore/Zone.cpp", "#include <string>\n#include <ZoneCore/Zone.h>\n",
        ['source/ZoneCore/Zone.cpp:2: this project\'s own headers stand in quotes: "ZoneCore/Zone.h"']),
    # Skipped tests.
    "GoogleTest": (
        "tests/Common/ClockTest.cpp",
        'TEST(A, DISABLED_b)\n{\n    GTEST_SKIP();\n    GTEST_SKIP() << "no clock";\n}\n',
        ["tests/Common/ClockTest.cpp:1: DISABLED_b: a test that never runs",
         "tests/Common/ClockTest.cpp:3: GTEST_SKIP without a reason"]),
    "pytest's calls": (
        "tests/system/test_x.py",
        'import pytest\npytest.skip()\npytest.skip("no clock")\npytest.skip(reason=f"no {1}")\n'
        'pytest.skip("")\npytest.importorskip("gi")\npytest.xfail()\n',
        ["tests/system/test_x.py:2: pytest.skip without a reason",
         "tests/system/test_x.py:5: pytest.skip without a reason",
         "tests/system/test_x.py:6: pytest.importorskip: scripts/setup installs what a test needs",
         "tests/system/test_x.py:7: pytest.xfail without a reason"]),
    "pytest's marks": (
        "tests/system/test_x.py",
        'import pytest\nA = pytest.mark.skip\nB = pytest.mark.skip("no clock")\n'
        'C = pytest.mark.skipif(True)\nD = pytest.mark.skipif(True, reason="no clock")\n'
        'E = pytest.mark.xfail\nF = pytest.mark.xfail(reason=" ")\n',
        ["tests/system/test_x.py:2: pytest.mark.skip without a reason",
         "tests/system/test_x.py:4: pytest.mark.skipif without a reason",
         "tests/system/test_x.py:6: pytest.mark.xfail without a reason",
         "tests/system/test_x.py:7: pytest.mark.xfail without a reason"]),
    "ctest": (
        "tests/CMakeLists.txt", "# DISABLED\nset_tests_properties(a PROPERTIES DISABLED TRUE)\n",
        ["tests/CMakeLists.txt:2: DISABLED: a test that never runs"]),
    # Text.
    "tabs": ("docs/a.md", "a\n\tb\n", ["docs/a.md:2: a tab"]),
    "blanks at the end": (
        "docs/a.md", "a \nb\r\n", ["docs/a.md:1: blanks at the end of the line",
                                   "docs/a.md:2: blanks at the end of the line"]),
    "no newline at the end": ("docs/a.md", "a\nb", ["docs/a.md:2: no newline at the end of the file"]),
    "a blank line at the end": ("docs/a.md", "a\n\n", ["docs/a.md:2: a blank line at the end of the file"]),
}


@pytest.mark.parametrize(("name", "text", "found"), BAD.values(), ids=BAD.keys())
def test_finds(tree, name, text, found):
    write(tree, name, text)
    result = check(tree)
    assert sorted(result.stdout.splitlines()) == sorted(found)
    assert result.returncode == 1


def test_finds_a_source_without_a_test(tree):
    (tree / "tests/ZoneCore/ZoneStartTest.cpp").unlink()
    result = check(tree)
    assert result.stdout == "source/ZoneCore/Zone.cpp:1: has no tests/ZoneCore/Zone*Test.cpp\n"
    assert result.returncode == 1


@pytest.mark.parametrize(("name", "text"), [
    ("source/ContainerCore/Box.cpp", '#include "ZoneCore/ZoneContainerState.h"\n'),
    ("platform/lxc_adapter/adapter.cpp", "#include <lxc/lxccontainer.h>\n"),
    ("tests/Common/ClockTest.cpp", '#include <gio/gio.h>\n#include "platform/log/platform_log.h"\n'),
    ("docs/Makefile", "all:\n\ttrue\n"),
    ("packaging/debian/rules", "#!/usr/bin/make -f\n%:\n\ttrue\n"),
    ("docs/picture.png", "\0 \n\t"),
    ("docs/empty.md", ""),
    ("build/a.md", "a\t \n"),
])
def test_lets_pass(tree, name, text):
    write(tree, "include_internal/ZoneCore/ZoneContainerState.h", "#pragma once\n")
    write(tree, "source/ZoneCore/ZoneContainerState.cpp", "")
    write(tree, "tests/ZoneCore/ZoneContainerStateTest.cpp", "")
    write(tree, name, text)
    result = check(tree)
    assert (result.returncode, result.stdout) == (0, "")


def test_tells_of_long_files_and_functions_when_asked(tree):
    body = "    work();\n" * 70
    write(tree, "source/Common/Clock.cpp", "int x;\n" * 450 + f"void f()\n{{\n{body}}}\n")
    write(tree, "tests/system/test_x.py", "def f():\n" + "    work()\n" * 60)
    assert check(tree).stdout == ""
    result = check(tree, "--verbose")
    assert result.stdout.splitlines() == [
        "source/Common/Clock.cpp:1: note: 523 lines (we like up to 500)",
        "source/Common/Clock.cpp:452: note: a function of 72 lines (we like up to 60)",
        "tests/system/test_x.py:1: note: a function of 61 lines (we like up to 60)",
    ]
    assert result.returncode == 0


def test_refuses_a_wrong_call(tmp_path):
    assert check(tmp_path / "nowhere").returncode == 2
    assert check(tmp_path, "--nonsense").returncode == 2
