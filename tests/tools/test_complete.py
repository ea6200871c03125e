"""What zonectl offers to the shells for a word that is being typed."""

import bus_fixtures


def candidates(result):
    assert result.returncode == 0 and result.stderr == ""
    return [line.split("\t")[0] for line in result.stdout.splitlines()]


def test_commands_come_first_and_with_their_help(zonectl):
    result = zonectl("complete", "--", "")
    assert {"list", "start", "doctor"} <= set(candidates(result))
    assert "complete" not in candidates(result)
    assert all("\t" in line for line in result.stdout.splitlines())
    assert candidates(zonectl("complete", "--", "l")) == ["list", "labels", "leftovers"]


def test_zones_come_behind_a_command_that_takes_them(zonectl):
    names = candidates(zonectl("list", "--json"))
    assert candidates(zonectl("complete", "--", "start", "na")) == ["nav"]
    assert candidates(zonectl("complete", "--", "--json", "start", "na")) == ["nav"]
    assert candidates(zonectl("complete", "--", "list", "")) == []
    assert names


def test_options_are_those_that_the_command_takes(zonectl):
    assert candidates(zonectl("complete", "--", "start", "--w")) == ["--wait"]
    assert candidates(zonectl("complete", "--", "list", "--w")) == []
    assert "--json" in candidates(zonectl("complete", "--", "--"))


def test_the_value_of_an_option_is_no_zone(zonectl):
    assert candidates(zonectl("complete", "--", "start", "--timeout", "")) == []
    assert candidates(zonectl("complete", "--", "start", "--color", "a")) == ["auto", "always"]


def test_a_zone_that_looks_like_an_option_comes_behind_a_double_dash(bus):
    service = bus_fixtures.MockService(bus.address, "-z")

    def offered(*words):
        return candidates(bus_fixtures.zonectl("complete", "--", *words, address=bus.address))

    assert offered("status", "--", "-") == ["-z"]
    assert "-z" in offered("status", "--", "") and "-z" not in offered("status", "")
    assert "--json" in offered("status", "-") and "-z" not in offered("status", "-")
    assert offered("wait", "--", "-z", "FRO") == ["FROZEN"]
    assert offered("attach", "nav", "--", "ls", "-") == [] == offered("attach", "--", "-z", "--", "ls", "-")
    service.stop()


def test_without_a_daemon_the_defined_containers_are_offered(bus):
    result = bus_fixtures.zonectl("complete", "--", "start", "no-such-zone-begins-so", address=bus.address)
    assert candidates(result) == []
