# SPDX-License-Identifier: MIT
"""Functions that the Python tools share. scripts/common.sh installs the packages and builds the programs for them."""

import os
import pathlib
import shlex
import subprocess
import sys

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(CHECKOUT / "lab"))
os.environ.update(LC_ALL="C.UTF-8", PATH="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")


def become_root():
    """Unless the program runs as root, restarts it with sudo, or exits and prints the command to run."""
    if os.geteuid() != 0:
        os.execv("/bin/bash", _bash("become_root"))


def install(*lists):
    """Installs the missing packages of lists in scripts/common.sh, such as "lab" for lab_packages."""
    _common("install_missing " + " ".join(f'"${{{name}_packages[@]}}"' for name in lists))


def build(preset, *targets):
    """Builds the targets of a preset, or all targets if none is named. Returns the folder that holds the programs."""
    _common(shlex.join(["build", preset, *targets]))
    return CHECKOUT / "build" / preset


def _common(command):
    status = subprocess.run(_bash(command)).returncode
    if status != 0:
        sys.exit(status)


def _bash(command):
    """The command line that runs a shell command with the functions of scripts/common.sh, as part of this program."""
    script = f'common=$1; shift; source "$common"; {command}'
    return ["bash", "-euo", "pipefail", "-c", script, sys.argv[0], CHECKOUT / "scripts/common.sh", *sys.argv[1:]]
