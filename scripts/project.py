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


def require_root():
    """Exits unless the program runs as root, and prints the command to type."""
    if os.geteuid() != 0:
        sys.exit(f"{os.path.basename(sys.argv[0])} needs root, type: sudo {shlex.join(sys.argv)}")


def install(*lists):
    """Installs the missing packages of lists in scripts/common.sh, such as "lab" for lab_packages."""
    _common("install_missing " + " ".join(f'"${{{name}_packages[@]}}"' for name in lists))


def build(preset, *targets):
    """Builds the targets of a preset, or all targets if none is named. Returns the folder that holds the programs."""
    _common(shlex.join(["build", preset, *targets]))
    return CHECKOUT / "build" / preset


def _common(command):
    script = f'source "$0"; {command}'
    status = subprocess.run(["bash", "-euo", "pipefail", "-c", script, CHECKOUT / "scripts/common.sh"]).returncode
    if status != 0:
        sys.exit(status)
