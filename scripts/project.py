# SPDX-License-Identifier: MIT
"""Functions that the Python tools share. scripts/common.sh installs the packages and builds the programs for them."""

import argparse
import os
import pathlib
import shlex
import signal
import subprocess
import sys

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(CHECKOUT / "lab"))
os.environ.update(LC_ALL="C.UTF-8", PATH="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")

import lab as laboratory  # noqa: E402


def parser(description, **options):
    """A parser of the tool's arguments. --help prints the description as it is."""
    return argparse.ArgumentParser(prog=f"scripts/{os.path.basename(sys.argv[0])}", description=description,
                                   formatter_class=argparse.RawDescriptionHelpFormatter, **options)


def run(main):
    """Runs a tool. If it raises an error of a command or of the lab, prints the error and exits with status 1.
    SIGTERM and ^C run the `finally` blocks of the tool."""
    sys.stdout.reconfigure(line_buffering=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        main()
    except (laboratory.Unavailable, RuntimeError, subprocess.SubprocessError) as reason:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {reason}")
    except KeyboardInterrupt:
        sys.exit(130)


def become_root():
    """Unless the program runs as root, restarts it with sudo, or exits and prints the command to run."""
    if os.geteuid() != 0:
        os.execv("/bin/bash", _bash("become_root"))


def install(*lists):
    """Installs the missing packages of lists in scripts/common.sh, such as "lab"."""
    _common(shlex.join(["install_missing", *lists]))


def build(preset, *targets):
    """Builds the targets of a preset, or all targets if none is named. Returns the folder that holds the programs."""
    _common(shlex.join(["build", preset, *targets]))
    return CHECKOUT / "build" / preset


def leave_to_user(file):
    """Makes a file that root has made belong to the user who ran the tool, as far as that user is known."""
    _common(shlex.join(["leave_to_user", file]))


def return_build():
    """Makes the owner of the checkout the owner of build/, because root may have written files there."""
    _common("return_build")


def quietly(*command):
    """Runs a command that must succeed. Returns its output, which otherwise becomes part of the RuntimeError."""
    run = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if run.returncode != 0:
        raise RuntimeError(f"{run.stdout}{shlex.join(map(str, command))} failed")
    return run.stdout


def _common(command):
    status = subprocess.run(_bash(command)).returncode
    if status != 0:
        sys.exit(status)


def _bash(command):
    """The command line that runs a shell command with the functions of scripts/common.sh, as part of this program."""
    script = f'common=$1; shift; source "$common"; {command}'
    return ["bash", "-euo", "pipefail", "-c", script, sys.argv[0], CHECKOUT / "scripts/common.sh", *sys.argv[1:]]
