# SPDX-License-Identifier: MIT
"""The arguments of the programs. With any argument, a program touches neither the SSH directory nor the network."""

import re

import pytest

from lab import CHECKOUT

PROGRAMS = {"dorve-client": "[--help | --version]", "dorve-server": "[--help | --version]",
            "dorve-unpair": "[--dry-run | --help | --version]"}
WRONG = ["x", "-h", "--helpx", "--help=1", "--x --help", "-", "''", "-- --help", "x --"]
HELP = ["--help", "--he", "--h", "x --help", "--help x", "--help --version", "--help --", "--help --wrong"]


@pytest.fixture(params=PROGRAMS)
def program(request):
    return request.param


@pytest.fixture
def run(shared_lab, build, program):
    """Runs the program with arguments and redirections of the shell. Checks what it asks the kernel for."""
    ssh = shared_lab.client.ssh
    (ssh / "base_slice_exchange").write_text("kept")

    def run(arguments):
        # LeakSanitizer does not work under strace.
        outcome = shared_lab.client.run("strace -f -qqq -E ASAN_OPTIONS=detect_leaks=0 -e trace=%network,%file "
                                        f"-o /run/trace {build}/{program} {arguments}")
        trace = shared_lab.client.path("/run/trace").read_text()
        assert re.search("exec", trace) and not re.search(r"socket|/root/", trace), trace
        assert [file.name for file in ssh.iterdir()] == ["base_slice_exchange"]
        return outcome
    return run


def test_help_and_version_are_printed(run, program):
    usage = f"usage: {program} {PROGRAMS[program]}\n"
    for arguments in HELP:
        outcome = run(arguments)
        assert (outcome.status, outcome.err) == (0, ""), arguments
        assert outcome.out.startswith(usage) and "--version" in outcome.out.removeprefix(usage), arguments
    version = (CHECKOUT / "debian/changelog").read_text().split("(")[1].split(")")[0]
    for arguments in "--version", "--v", "--version x", "x --version":
        outcome = run(arguments)
        assert (outcome.status, outcome.out, outcome.err) == (0, f"{program} {version}\n", ""), arguments


def test_wrong_arguments_give_the_usage_line(run, program):
    own = ["--dry-run=1", "--dry-run x", "--dry-run -- x"] if program == "dorve-unpair" else ["--dry-run", "--"]
    for arguments in WRONG + own:
        outcome = run(arguments)
        assert (outcome.status, outcome.out) == (2, ""), arguments
        assert outcome.err == f"usage: {program} {PROGRAMS[program]}\n", arguments


def test_output_that_cannot_be_written_is_a_failure(run, program):
    for arguments in "--help >/dev/full", "--version >/dev/full", "--help >&-":
        outcome = run(arguments)
        assert (outcome.status, outcome.err) == (1, f"{program}: cannot write to standard output\n"), arguments
