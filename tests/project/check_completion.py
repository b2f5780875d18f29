#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Presses the tab key in bash, zsh and fish: check_completion.py NIMBREL SCRIPTS

bash and zsh run on a terminal of their own. Each line is typed with a tab behind it; then the shell prints the line that
has come of it, or the words that it offers. The options offered are held to those that help has, for each command.
"""
import json
import os
import pathlib
import pty
import re
import select
import shlex
import subprocess
import sys
import tempfile
import time

NIMBREL, SCRIPTS = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
DEADLINE = 60  # seconds, for what takes milliseconds
PROMPT = "READY: "

# What is typed, and what the one possible completion makes of it.
COMPLETED = [
    ("nimbrel li", "nimbrel list"),
    ("nimbrel list --wai", "nimbrel list --wait"),
    ("nimbrel --demo topo", "nimbrel --demo topology"),
    ("nimbrel rig pl", "nimbrel rig play"),
    ("nimbrel help rig sc", "nimbrel help rig schema"),
    ("nimbrel list --bus gi", "nimbrel list --bus gige"),
    ("nimbrel topology --format js", "nimbrel topology --format json"),
    ("nimbrel list --columns serial_text,mo", "nimbrel list --columns serial_text,model"),
    ("nimbrel list --sort -mo", "nimbrel list --sort -model"),
    ("nimbrel list --demo --wait 2000", "nimbrel list --demo --wait 20000007"),
    ("nimbrel list --demo --wait 31000001,2000", "nimbrel list --demo --wait 31000001,20000007"),
    ("nimbrel list --demo --vendor=Brig", "nimbrel list --demo --vendor=Brightline"),
    ("nimbrel list --demo --model Zo", "nimbrel list --demo --model Zoom 1394"),
    ("nimbrel list --demo --interface e", "nimbrel list --demo --interface eth0"),
    ("nimbrel simulate gige --interface l", "nimbrel simulate gige --interface lo"),
    ("nimbrel control --demo ser", "nimbrel control --demo serial:"),
    ("nimbrel control --demo serial:2000", "nimbrel control --demo serial:20000007"),
    ("nimbrel control --demo ip:192.168.77.11", "nimbrel control --demo ip:192.168.77.11"),
    ("nimbrel usb-link --demo 2000", "nimbrel usb-link --demo 20000007"),
    ("nimbrel list --rig fold", "nimbrel list --rig folder/"),
    ("nimbrel list --rig folder/li", "nimbrel list --rig folder/line.json"),
    ("nimbrel rig check folder/li", "nimbrel rig check folder/line.json"),
    ("nimbrel list --log folder/tr", "nimbrel list --log folder/trace.log"),
]
# What is typed, and words that must be offered.
OFFERED = [
    ("nimbrel ", ["list", "watch", "doctor", "simulate"]),
    ("nimbrel list --demo --wait ", ["200705", "21000101", "31000002"]),
    ("nimbrel control --demo ip:192.168.77.1", ["192.168.77.10", "192.168.77.11"]),
    ("nimbrel force-ip --demo --mac ", ["02:00:"]),
    ("nimbrel list --color ", ["always", "auto", "never"]),
]


class Terminal:
    """A shell on a terminal of its own."""

    def __init__(self, command, environment, folder, setup):
        self.output = ""
        pid, self.fd = pty.fork()
        if pid == 0:
            os.chdir(folder)
            os.execvpe(command[0], command, environment)
        self.pid = pid
        # Wide and long enough that nothing is asked or cut.
        import fcntl
        import struct
        import termios
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", 200, 400, 0, 0))
        self.type(setup + "\n")
        self.read_to_mark()

    def type(self, text):
        os.write(self.fd, text.encode())

    def read_to_mark(self):
        """What the shell has printed. It prints a word that is not on the line that asks for it, then its prompt: before
        that the terminal is not the line editor's, and would take some keys for its own."""
        self.type("echo end$((40+2))\n")
        seen = self.read_until("end42")
        self.read_until(PROMPT)
        return seen

    def read_until(self, text):
        end = time.monotonic() + DEADLINE
        while text not in self.output:
            ready, _, _ = select.select([self.fd], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise RuntimeError(f"no {text} in:\n{self.output}")
            self.output += os.read(self.fd, 65536).decode(errors="replace")
        seen, self.output = self.output.split(text, 1)
        return seen

    def complete(self, line):
        """The line after a tab."""
        # Ctrl-E and Ctrl-A: what the tab has made of the line becomes the argument of a command that prints it.
        self.type(f"{line}\t\x05>'\x01print_line '<\n")
        seen = self.read_to_mark()
        return re.findall(r"^LINE <(.*)>\r?$", seen, re.M)[-1].rstrip()

    def offer(self, line):
        """What the shell shows after two tabs."""
        self.type(f"{line}\t\t\x15")
        return self.read_to_mark()

    def close(self):
        self.type("\x15exit\n")
        os.close(self.fd)
        os.waitpid(self.pid, 0)


class Fish:
    """fish says itself what a tab would offer."""

    def __init__(self, environment, folder):
        self.environment, self.folder = environment, folder

    def words(self, line):
        script = f"source {shlex.quote(str(SCRIPTS / 'nimbrel.fish'))}; complete -C {shlex.quote(line)}"
        result = subprocess.run(["fish", "--no-config", "-c", script], env=self.environment, cwd=self.folder, check=True,
                                stdout=subprocess.PIPE, text=True, timeout=DEADLINE)
        return [word.split("\t")[0] for word in result.stdout.splitlines()]

    def complete(self, line):
        words = self.words(line)
        if len(words) != 1:
            return f"{line}: {words}"
        # It gives the whole word, or what follows a = or a colon.
        typed = line.rsplit(" ", 1)[1]
        begin = line[:-len(typed)] + ("" if words[0].startswith(typed) else typed[:typed.index("=") + 1])
        return begin + words[0].rstrip()

    def offer(self, line):
        return "\n".join(self.words(line))

    def close(self):
        pass


def bash(environment, folder):
    return Terminal(["bash", "--norc", "--noprofile", "-i"], environment, folder,
                    f"PS1='{PROMPT}'; print_line() {{ echo; echo \"LINE $1\"; }}; bind 'set bell-style none'; "
                    "bind 'set completion-query-items 0'; bind 'set page-completions off'; "
                    "bind 'set enable-bracketed-paste off'; . /usr/share/bash-completion/bash_completion; "
                    f". {SCRIPTS}/nimbrel.bash")


def zsh(environment, folder):
    return Terminal(["zsh", "-f", "-i"], environment, folder,
                    f"PS1='{PROMPT}'; unsetopt prompt_sp beep auto_remove_slash; bindkey -e; LISTMAX=10000; "
                    "print_line() { echo; print -r -- \"LINE $1\"; }; "
                    f"fpath=({SCRIPTS} $fpath); autoload -Uz compinit; compinit -u -D")


def check(name, shell):
    found = []
    for line, expected in COMPLETED:
        result = shell.complete(line)
        if result.replace("\\", "") != expected:
            found.append(f"{name}: {line!r} became {result!r}, not {expected!r}")
    for line, words in OFFERED:
        shown = shell.offer(line)
        found += [f"{name}: {line!r} does not offer {word}: {shown!r}" for word in words if word not in shown]
    shell.close()
    return found


def check_options(words, command):
    """That the program offers the options and commands that its help has, no more and no less."""
    found = []

    def offered(typed):
        answer = subprocess.run([NIMBREL, "complete", "--", *words, typed], check=True, stdout=subprocess.PIPE, text=True)
        return {line.split("\t")[0] for line in answer.stdout.splitlines()[1:]}
    options = {name for option in command["options"] for name in option["names"] if name.startswith("--")}
    if offered("--") != options:
        found.append(f"nimbrel {' '.join(words)}: help has {options}, offered are {offered('--')}")
    below = {one["name"] for one in command["commands"]}
    if below and offered("") != below:
        found.append(f"nimbrel {' '.join(words)}: help has {below}, offered are {offered('')}")
    for one in command["commands"]:
        found += check_options([*words, one["name"]], one)
    return found


def main():
    program = json.loads(subprocess.run([NIMBREL, "help", "--json"], check=True, stdout=subprocess.PIPE).stdout)
    found = check_options([], program)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "bin").mkdir()
        (folder / "bin/nimbrel").symlink_to(NIMBREL)
        (folder / "folder").mkdir()
        for file in ("line.json", "line.txt", "trace.log"):
            (folder / "folder" / file).write_text("{}")
        environment = {"PATH": f"{folder / 'bin'}:{os.environ['PATH']}", "HOME": name, "TERM": "xterm", "LC_ALL": "C.UTF-8",
                       "XDG_DATA_HOME": name, "XDG_CONFIG_HOME": name}
        for shell_name, shell in (("bash", bash), ("zsh", zsh), ("fish", Fish)):
            found += check(shell_name, shell(environment, folder))
    if found:
        sys.exit("\n".join(found))
    print(f"{len(COMPLETED) + len(OFFERED)} lines in each of three shells")


main()
