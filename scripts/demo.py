# SPDX-License-Identifier: MIT
"""Shows a pairing of two hosts that it makes on this machine: ssh is refused, the two programs run, and ssh works both
ways.

It installs missing packages and writes to build/ and FILE. It leaves nothing else behind, even if it is killed:
everything runs in the lab, which ends with this process."""

import concurrent.futures
import contextlib
import os
import signal
import subprocess
import sys

import project
import lab as laboratory

BOLD, PLAIN = ("\033[1m", "\033[0m") if sys.stdout.isatty() else ("", "")
# With these options, ssh does not save the peer's host key, so this attempt leaves nothing that could help the pairing.
NO_HOST_KEY = ["-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR"]
SHOW_FILES = 'cd .ssh; ls -l; for file in authorized_keys config; do echo "[$file]"; cat $file; done'  # no private key


def main():
    parser = project.parser(__doc__)
    parser.add_argument("--shell", choices=["client", "server"], help="then open a shell on this host")
    parser.add_argument("--capture", metavar="FILE", help="save the traffic of the link in FILE (pcapng), for "
                        "Wireshark: see docs/protocol.md")
    arguments = parser.parse_args()
    project.become_root()
    if arguments.capture is not None:
        make_file(arguments.capture)

    heading("Programs")
    project.install("build", "lab", *(["wire"] if arguments.capture else []))
    programs = project.build("release", "dorve-server", "dorve-client")

    heading("Two hosts, one link")
    with laboratory.Lab(sshd=True) as lab, contextlib.ExitStack() as capture:
        if arguments.capture:
            capture.enter_context(lab.client.capture(arguments.capture))
        for host in lab.hosts:
            run(host, ["ip", "-brief", "-4", "address", "show", "dev", "bsab"])

        heading("Before: neither host can log in to the other")
        show_refusal(lab.client)
        show_refusal(lab.server)

        heading("dorve-server and dorve-client")
        pair(lab, programs)

        heading("After: each host logs in to the other")
        show_login(lab.client)
        show_login(lab.server)

        heading("SSH files of both hosts")
        for host in lab.hosts:
            if run(host, SHOW_FILES) != 0:
                raise RuntimeError(f"the {host.name} lacks SSH files")

        if not arguments.shell:  # a shell's traffic is also captured
            capture.close()
        print(f"\n{BOLD}Proved: root on each host can log in to the other with plain ssh and with the keys of this "
              f"pairing.{PLAIN}")
        if arguments.shell:
            heading(f"A shell on the {arguments.shell}. To end the lab, run: exit")
            signal.signal(signal.SIGINT, lambda *_: None)  # ^C is for the shell
            subprocess.run(getattr(lab, arguments.shell).command(["bash"]))


def heading(text):
    print(f"\n{BOLD}== {text}{PLAIN}")


def show(host, text):
    """Prints a line with the host's name in front of it."""
    print(f"{BOLD}{host.name} |{PLAIN} {text}\n", end="")


def run(host, command):
    """Runs a command on the host, shows each line that it prints, and returns its exit status."""
    with subprocess.Popen(host.command(command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True) as process:
        for line in process.stdout:
            show(host, line.rstrip("\n"))
    return process.returncode


def show_refusal(host):
    target = f"root@{host.peer.address}"
    outcome = host.run(["ssh", "-n", "-o", "BatchMode=yes", *NO_HOST_KEY, target, "hostname"])
    if outcome.status == 0:
        raise RuntimeError(f"ssh {target} logged in before any key was exchanged")
    show(host, f"ssh {target}")
    show(host, outcome.err.strip())
    if "Permission denied" not in outcome.err:
        raise RuntimeError(f'ssh {target} did not fail with "Permission denied"')


def pair(lab, programs):
    """Runs both programs at the same time. The client retries until the server is ready."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        statuses = list(pool.map(lambda host: run(host, [programs / f"dorve-{host.name}"]), lab.hosts))
    failed = [f"dorve-{host.name} (exit status {status})" for host, status in zip(lab.hosts, statuses) if status != 0]
    if failed:
        raise RuntimeError(f"failed: {' '.join(failed)}")
    print("Both programs exited with status 0.")


def show_login(host):
    name = laboratory.prove_login(host)
    show(host, f"ssh root@{host.peer.address} hostname")
    show(host, name)


def make_file(path):
    """Empties the file, or makes it with the owner whom it would have without root."""
    is_new = not os.path.exists(path)
    try:
        open(path, "wb").close()
    except OSError:
        raise RuntimeError(f"cannot write {path}") from None
    if is_new:
        project.leave_to_user(path)


if __name__ == "__main__":
    sys.argv[0] = str(project.CHECKOUT / "scripts/demo")  # what the user ran, and what a restart as root runs
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    project.run(main)
