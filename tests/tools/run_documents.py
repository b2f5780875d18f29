#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs every command line that the documents show and compares what it prints:
run_documents.py [--update] [--part K/N] NIMBREL EXAMPLES FILE

Runs in a network namespace of its own as root; NIMBREL is the command line, EXAMPLES a folder with the compiled examples. A comment
stands in front of each block of commands:

    <!-- run: SCENE -->         the block runs in this scene (below); "same" goes on in the scene of the block before
    <!-- run: SCENE, EVENT -->  and this happens to the scene once the first line has been printed
    <!-- run: SCENE, stays -->  and the last command keeps running until the end of the document
    <!-- not run: REASON -->    somebody else tests it, or nobody can

A block whose lines begin with "$ " shows commands with what they print; the line "..." stands for any lines. Other blocks are
scripts, which must succeed. Times and process ids may differ. A command that goes on for ever is interrupted when it has
printed what is shown. --part runs every Nth block only (a block that goes on in the scene of another goes with it), so that
several parts can run side by side. --update writes what is printed into the documents, for a person to read before it is committed.
"""
import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

DEADLINE = 60  # seconds, for a command that should be done in two
ENDLESS = re.compile(r"nimbrel (watch|simulate gige|rig serve)(?!.*(--count|--duration|--help|\| *head))")
BLOCK = re.compile(r"(?P<comment><!-- (?P<kind>run|not run): (?P<text>[^>]*?) -->\n)?(?P<open>^```(?P<language>[a-z]*)\n)(?P<body>.*?)^```$",
                   re.S | re.M)

# ---- Scenes --------------------------------------------------------------------------------------------------------

LINE = [("192.168.77.11", "02:00:5e:00:77:0b", "19340211", []), ("192.168.77.12", "02:00:5e:00:77:0c", "19340212", [])]
LOST = [("192.168.77.11", "02:00:5e:00:77:0b", "19340211", []), ("10.9.9.9", "02:00:5e:00:77:0c", "19340212", [])]
HELD = [("192.168.77.11", "02:00:5e:00:77:0b", "19340211", ["--ccp-owner", "192.168.77.200:50000"])]
NEW = [("169.254.8.15", "02:00:5e:00:77:0d", "19340213", ["--mask", "/16"])]
FREE = []

# The cameras at the other end of eth1's cable, its address, settings of the kernel, and files.
SCENES = {
    "computer": (None, None, {}, {}),
    "line": (LINE, "192.168.77.1/24", {}, {}),
    "wrong subnet": (LOST, "192.168.77.1/24", {}, {}),
    "filter": (LOST, "192.168.77.1/24", {"all": "2", "eth1": "1"}, {}),
    "held": (HELD, "192.168.77.1/24", {}, {}),
    "new camera": (NEW, None, {}, {}),
    "nothing": (FREE, "192.168.77.1/24", {}, {}),
    "laboratory": (None, None, {}, {}),
    "table": (LOST, "192.168.77.1/24", {}, {"line.txt": "02:00:5e:00:77:0b 192.168.77.21\n02:00:5e:00:77:0c 192.168.77.22\n"}),
}


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def wait_until(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"{what} did not happen")
        time.sleep(0.01)  # between two looks at a condition that nothing announces


def links_have_settled():
    """The kernel takes a while to notice the link of an interface that is up."""
    links = json.loads(subprocess.check_output(["ip", "-j", "link"], text=True))
    return all("LOWER_UP" in link["flags"] and link["operstate"] != "DOWN" for link in links if "UP" in link["flags"])


class Scene:
    """One state of the world: eth1 of this namespace, a namespace at the other end of its cable, cameras there."""

    def __init__(self, name, nimbrel, folder):
        cameras, self.address, filters, files = SCENES[name]
        self.nimbrel, self.cameras, self.wire = nimbrel, [], None
        for file, text in files.items():
            (folder / file).write_text(text)
        if name == "laboratory":  # where `ip netns` keeps names, for this document alone
            run("mkdir", "-p", "/run/netns")
            run("mount", "-t", "tmpfs", "none", "/run/netns")
        if cameras is None:
            return
        self.wire = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        mine = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.wire.pid}/ns/net") != mine, "a namespace of its own")
        run("ip", "link", "add", "eth1", "type", "veth", "peer", "name", "c0", "netns", str(self.wire.pid))
        self.inside("ip", "link", "set", "c0", "up")
        self.inside("ip", "link", "set", "lo", "up")
        self.inside("ip", "address", "add", "192.168.77.250/24", "dev", "c0")
        for which in ("all", "eth1"):
            pathlib.Path(f"/proc/sys/net/ipv4/conf/{which}/rp_filter").write_text(filters.get(which, "0"))
        run("ip", "link", "set", "eth1", "up")
        if self.address:
            run("ip", "address", "add", self.address, "dev", "eth1")
        wait_until(lambda: "LOWER_UP" in subprocess.check_output(["ip", "link", "show", "eth1"], text=True), "a link")
        for camera in cameras:
            self.plug(camera)

    def inside(self, *command):
        run("nsenter", f"--net=/proc/{self.wire.pid}/ns/net", *command)

    def plug(self, camera):
        address, mac, serial, more = camera
        process = subprocess.Popen(
            ["nsenter", f"--net=/proc/{self.wire.pid}/ns/net", self.nimbrel, "simulate", "gige", "--interface", "c0",
             "--address", address, "--mac", mac, "--serial", serial, "--vendor", "Cairn", "--model", "G 2040", *more],
            stdout=subprocess.PIPE, text=True)
        if not process.stdout.readline():
            raise RuntimeError(f"camera {serial} does not start")
        self.cameras.append((camera, process))

    def unplug(self):
        camera, process = self.cameras.pop()
        process.terminate()
        process.wait()
        return camera

    def happen(self, event, printed):
        """What the comment of a block calls for, while its command runs."""
        if event == "replug":
            camera = self.unplug()
            wait_until(lambda: any("removal" in line for line in printed()), "the removal")
            self.plug(camera)
        elif event == "unplug":
            self.unplug()
        elif event:
            raise RuntimeError(f"unknown event {event}")

    def close(self):
        while self.cameras:
            self.unplug()
        if self.wire:
            subprocess.run(["ip", "link", "delete", "eth1"], check=False, stderr=subprocess.DEVNULL)
            self.wire.kill()
            self.wire.wait()


# ---- What is shown and what is printed -----------------------------------------------------------------------------

def normal(line):
    """The line without what differs from run to run."""
    line = re.sub(r"\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d\.\d+", "TIME", line.rstrip())
    return re.sub(r"^(TIME  \S+) +\d+  ", r"\1 ID ", line)


def fits(shown, printed, whole=True):
    """Whether the printed lines are those shown, "..." being any lines. whole=False: whether they begin so."""
    if not shown:
        return not printed or not whole
    if shown[0] == "...":
        return any(fits(shown[1:], printed[at:], whole) for at in range(len(printed) + 1))
    return bool(printed) and normal(shown[0]) == normal(printed[0]) and fits(shown[1:], printed[1:], whole)


def commands_of(body):
    """The commands of a block with what is shown below each."""
    lines, found = body.splitlines(), []
    while lines:
        line = lines.pop(0)
        if not line.startswith("$ "):
            found[-1][1].append(line)
            continue
        command = line[2:]
        while command.endswith("\\"):
            command += "\n" + lines.pop(0)
        found.append((command, []))
    return found


class Runner:
    def __init__(self, nimbrel, examples, update, part):
        self.nimbrel, self.examples, self.update, self.part = nimbrel, examples, update, part
        self.scenes = 0
        self.faults, self.commands, self.scene, self.kept = [], 0, None, []

    def start(self, command):
        tools = pathlib.Path(self.folder, "bin")
        environment = {"PATH": f"{tools}:{os.environ['PATH']}", "LC_ALL": "C.UTF-8", "HOME": self.folder, "TZ": "UTC", "COLUMNS": "100"}
        # Sanitizers have their options there.
        environment |= {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        # sudo is not needed here and may not be there.
        return subprocess.Popen(["bash", "-c", 'sudo() { "$@"; }; ' + command], cwd=self.folder, env=environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)

    def execute(self, command, shown, event, stays):
        """What the command prints, and its exit status; None for one that was interrupted."""
        process, printed, changed = self.start(command), [], threading.Condition()

        def read():
            for line in process.stdout:
                with changed:
                    printed.append(line.rstrip("\n"))
                    changed.notify_all()

        def lines():
            with changed:
                return list(printed)

        reader = threading.Thread(target=read)
        reader.start()
        status, endless = None, stays or bool(ENDLESS.search(command))
        try:
            if event or endless:
                with changed:
                    changed.wait_for(lambda: printed, DEADLINE)
            self.scene.happen(event, lines)
            if endless:
                with changed:
                    changed.wait_for(lambda: fits(shown, printed, False) and (shown or printed), 3 if self.update else DEADLINE)
            if stays:
                self.kept.append((process, reader))
                wait_until(links_have_settled, "a link")
                return lines(), None
            if endless:
                os.killpg(process.pid, signal.SIGINT)
            status = process.wait(DEADLINE)
        finally:
            if not stays and process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
        reader.join()
        return lines(), None if endless else status

    def block(self, match, place):
        if match["kind"] is None:
            self.faults.append(f"{place}: no comment says in which scene it runs")
            return match["body"]
        if match["kind"] == "not run":
            return match["body"]
        name, _, event = (word.strip() for word in match["text"].partition(","))
        self.scenes += name != "same"
        if self.scenes % self.part[1] != self.part[0] - 1:
            return match["body"]
        if name != "same":
            self.close_scene()
            self.scene = Scene(name, self.nimbrel, pathlib.Path(self.folder))
        stays, event = event == "stays", "" if event == "stays" else event
        if not match["body"].startswith("$ "):
            printed, status = self.execute("set -e\n" + match["body"], [], event, stays)
            self.commands += 1
            if status:
                self.faults.append(f"{place}: ended with {status}: {printed}")
            return match["body"]
        body = ""
        for command, shown in commands_of(match["body"]):
            printed, status = self.execute(command, shown, event, stays)
            self.commands += 1
            if not fits(shown, printed, whole=status is not None):
                if not self.update:
                    self.faults.append(f"{place}: $ {command}\n  shown:\n    " + "\n    ".join(shown) + "\n  printed:\n    " +
                                       "\n    ".join(printed))
                shown = printed
            body += "$ " + command + "\n" + "".join(line.rstrip() + "\n" for line in shown)
        return body

    def close_scene(self):
        for process, reader in self.kept:
            os.killpg(process.pid, signal.SIGINT)
            process.wait(DEADLINE)
            reader.join()
        self.kept = []
        if self.scene:
            self.scene.close()
        self.scene = None

    def document(self, path, root):
        text = path.read_text()

        def replace(match):
            if match["language"] not in ("", "sh") or not re.search(r"^(\$ )?(sudo )?(nimbrel|make|cmake|g\+\+) ", match["body"], re.M):
                if match["kind"] != "run":
                    return match[0]
            place = f"{path}:{text.count(chr(10), 0, match.start('body')) + 1}"
            try:
                body = self.block(match, place)
            except (RuntimeError, subprocess.SubprocessError) as error:
                self.faults.append(f"{place}: {error}")
                body = match["body"]
            return (match["comment"] or "") + match["open"] + body + "```"

        with tempfile.TemporaryDirectory() as self.folder:
            tools = pathlib.Path(self.folder, "bin")
            tools.mkdir()
            (tools / "nimbrel").symlink_to(self.nimbrel)
            for source in (root / "examples").glob("*.cpp"):
                program = pathlib.Path(self.examples, source.stem)
                if program.exists():
                    pathlib.Path(self.folder, program.name).symlink_to(program)
            shutil.copytree(root / "examples", pathlib.Path(self.folder, "examples"))
            try:
                updated = BLOCK.sub(replace, text)
            finally:
                self.close_scene()
        if self.update and updated != text:
            path.write_text(updated)


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--part", type=lambda text: tuple(map(int, text.split("/"))), default=(1, 1))
    parser.add_argument("nimbrel", type=pathlib.Path)
    parser.add_argument("examples", type=pathlib.Path)
    parser.add_argument("file", type=pathlib.Path)
    given = parser.parse_args()
    runner = Runner(str(given.nimbrel.resolve()), given.examples.resolve(), given.update, given.part)
    runner.document(given.file, pathlib.Path(__file__).resolve().parents[2])
    if runner.faults:
        sys.exit("\n".join(runner.faults))
    print(f"{runner.commands} command lines print what is shown")


main()
