# SPDX-License-Identifier: MIT
"""What the tools in Python share with the shell scripts: scripts/common.sh installs packages and builds."""

import os
import pathlib
import shlex
import subprocess
import sys

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(CHECKOUT / "lab"))
os.environ.update(LC_ALL="C.UTF-8", PATH="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")


def require_root():
    """Ends the program with the command to type unless it runs as root."""
    if os.geteuid() != 0:
        sys.exit(f"{os.path.basename(sys.argv[0])} needs root, type: sudo {shlex.join(sys.argv)}")


def install(*lists):
    """Installs what is missing of package lists in scripts/common.sh, such as "lab" for lab_packages."""
    _common("install_missing " + " ".join(f'"${{{name}_packages[@]}}"' for name in lists))


def build(preset, *targets):
    """Builds a preset, all targets unless some are named; returns the folder that holds the programs."""
    _common(shlex.join(["build", preset, *targets]))
    return CHECKOUT / "build" / preset


def return_build():
    """Gives the caller of sudo what root has written to build/."""
    _common("return_build")


def _common(command):
    script = f'source "$0"; {command}'
    status = subprocess.run(["bash", "-euo", "pipefail", "-c", script, CHECKOUT / "scripts/common.sh"]).returncode
    if status != 0:
        sys.exit(status)
