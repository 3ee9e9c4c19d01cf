# SPDX-License-Identifier: MIT
"""What all tests of the programs share: the folder with the programs, and the labs."""

import pathlib
import sys
import tempfile

import pytest

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(CHECKOUT / "lab"))

import lab as laboratory  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", default=CHECKOUT / "build/release", type=pathlib.Path,
                     help="the folder that holds the programs")
    parser.addoption("--part", default="1/1", help="N/M runs the Nth of M parts of the tests")


def pytest_collection_modifyitems(config, items):
    part, parts = map(int, config.getoption("--part").split("/"))
    items[:] = items[part - 1::parts]


@pytest.fixture(scope="session")
def build(request):
    """The folder that holds the programs. Tests write its path in shell commands, so it is a symbolic link without
    blanks and quotes in its path."""
    with tempfile.TemporaryDirectory() as folder:
        link = pathlib.Path(folder, "build")
        link.symlink_to(request.config.getoption("--build").resolve())
        yield link


@pytest.fixture
def tampered(build):
    """The command line that runs a program under strace, which changes system calls by an `inject` rule."""
    # LeakSanitizer would fail, because it cannot trace a program that strace traces.
    def command(program, rule):
        return ["strace", "-qq", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0", "-e", f"inject={rule}",
                build / program]
    return command


@pytest.fixture
def lab():
    """Two hosts without sshd."""
    yield from _lab()


@pytest.fixture(scope="module")
def shared_lab():
    """Two hosts without sshd for all tests of a file that leave the link and the SSH directories in place."""
    yield from _lab()


@pytest.fixture
def sshd_lab():
    """Two hosts that run sshd."""
    yield from _lab(sshd=True)


def _lab(**options):
    try:
        with laboratory.Lab(**options) as hosts:
            yield hosts
    except laboratory.Unavailable as reason:
        pytest.skip(f"no lab: {reason}")
