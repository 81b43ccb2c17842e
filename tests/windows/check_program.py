#!/usr/bin/env python3
"""Runs zpregmon.exe under Wine, where stand-ins take the place of the drivers.

Ends with status 77 where Wine is missing. Wine's service control manager, registry, processes and
requests to drivers are Wine's: what is seen here is how the program uses them.
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SKIPPED = 77
FORMATS = ("table", "jsonl", "csv", "ocsf", "sysmon")
SERVICES = r"HKLM\System\CurrentControlSet\Services"


def find_wine():
    places = [shutil.which("wine64"), shutil.which("wine"), "/usr/lib/wine/wine64"]
    return next((place for place in places if place and os.path.exists(place)), None)


class Wine:
    """A Windows of its own below `folder`, which is also where its programs run."""

    def __init__(self, wine, folder):
        self.wine, self.folder = wine, folder
        self.environment = dict(os.environ, WINEPREFIX=str(folder / "prefix"), WINEDEBUG="-all",
                                DISPLAY="")

    def __enter__(self):
        # When its last program ends, Wine ends its services, too: this one stays.
        self.keeper = self.begin(subprocess.PIPE, "cmd", stdin=subprocess.PIPE)
        self.keeper.stdin.write(b"echo ready\r\n")
        self.keeper.stdin.flush()
        if not any(b"ready" in line for line in self.keeper.stdout):
            sys.exit("Wine does not start")
        return self

    def __exit__(self, *_):
        self.keeper.stdin.close()
        self.keeper.wait(30)
        self.run("wineboot", "-k")

    def begin(self, output, *command, stdin=subprocess.DEVNULL):
        return subprocess.Popen([self.wine, *command], cwd=self.folder, env=self.environment,
                                stdin=stdin, stdout=output, stderr=subprocess.STDOUT)

    def run(self, *command):
        """Exit status and output. Through a file: Wine's services would keep a pipe open."""
        with tempfile.TemporaryFile("w+", encoding="utf-8") as output:
            status = self.begin(output, *command).wait(120)
            output.seek(0)
            return status, output.read()

    def zpregmon(self, *arguments):
        return self.run("zpregmon.exe", *arguments)

    def values(self, key):
        """The values of a registry key and those below it, by key and name."""
        found, place = {}, ""
        for line in self.run("reg", "query", key, "/s")[1].splitlines():
            if line.startswith("HKEY_"):
                place = line.split("\\Services\\")[1]
            elif match := re.match(r" {4}(\S+) {4}(REG_\w+) {4}(.*)", line):
                found[f"{place}\\{match[1]}"] = match[3]
        return found


def expect(got, status, text):
    """Fails unless the program ended so and said so, in one line when it complains."""
    if got[0] != status or text not in got[1] or (status != 0 and got[1].count("\n") != 1):
        sys.exit(f"expected status {status} and {text!r}, got {got}")


def numbers(path):
    """Those that the stand-in gave the events, in the order in which they were printed."""
    return [int(number) for number in re.findall(r"Flush(\d{5})", path.read_text())]


def expect_sequence(found):
    if not found or found != list(range(found[0], found[0] + len(found))):
        sys.exit(f"events are missing or out of order: {found}")


def expect_nothing_installed(wine):
    drivers = wine.folder / "prefix/drive_c/windows/system32/drivers"
    left = [wine.values(SERVICES + "\\" + name) for name in ("zpregflt", "zpklib")]
    if any(left) or list(drivers.glob("zp*.sys")):
        sys.exit(f"something is left of the installation: {left}")


def check_without_driver(wine):
    expect(wine.zpregmon("monitor"), 1, "control device: the driver is not loaded")
    expect(wine.zpregmon("start"), 1, "zpklib: it is not installed")
    expect(wine.zpregmon("stop"), 1, "zpregflt: it is not installed")
    expect(wine.zpregmon("uninstall"), 1, "zpregflt: it is not installed")
    expect(wine.zpregmon("install"), 2, "zpklib.sys: no such file")
    expect(wine.zpregmon("install", "--start", "never"), 2, "--start")


def check_installation(wine):
    expect(wine.zpregmon("install", "--start", "system", "--operations", "SetValueKey",
                         "--capture-max", "4096", "--report-original", "--override", "trusted",
                         "--trace-process", "notepad.exe", "--trace-operations", "0x17"),
           0, "installed")
    expect(wine.zpregmon("install"), 1, "installed already")
    values = wine.values(SERVICES + r"\zpregflt") | wine.values(SERVICES + r"\zpklib")
    for name, value in {
        r"zpklib\Start": "0x1", r"zpregflt\Start": "0x1", r"zpregflt\DependOnService": "zpklib",
        r"zpregflt\ImagePath": r"\SystemRoot\System32\drivers\zpregflt.sys",
        r"zpregflt\Parameters\Report\Operations": "0x2",
        r"zpregflt\Parameters\Report\CaptureMaxSize": "0x1000",
        r"zpregflt\Parameters\Report\Original": "0x1",
        r"zpregflt\Parameters\Report\Override": "0x1",
        r"zpregflt\Parameters\Trace\Process": "notepad.exe",
        r"zpregflt\Parameters\Trace\Operations": "0x17",
        r"zpklib\TrustedImages": str(wine.folder / "zpregmon.exe").replace("/", "\\"),
    }.items():
        if values.get(name) != value:
            sys.exit(f"{name} is {values.get(name)}, expected {value}")
    expect(wine.zpregmon("uninstall"), 0, "uninstalled")
    expect_nothing_installed(wine)


def check_monitor(wine):
    events = wine.folder / "events.jsonl"
    settings = ("--operations", "0x3", "--exempt", "a.exe", "--exempt", "a.exe")
    status, text = wine.zpregmon("monitor", "-f", "jsonl", "-o", events.name, "--duration", "1",
                                 "--interval", "20", "--dump-file", "zpregmon.dump", *settings)
    found = numbers(events)
    expect_sequence(found)
    if status != 0 or f"events{len(found):>28}\n" not in text:
        sys.exit(f"monitor ended with {status}: {text}; {len(found)} events")
    event = json.loads(events.read_text().splitlines()[0])
    if (event["operations"] != ["DeleteKey", "SetValueKey"] or
            not event["image"].endswith(r"\zpregmon.exe")):
        sys.exit(f"settings or images are wrong: {event}")
    expect(wine.zpregmon("monitor", "--dump-file", "another.dump"), 1, "until it is unloaded")


def check_interruption(wine):
    """Ctrl+C once events have been printed, which is while the program still runs."""
    events, summary = wine.folder / "events.csv", wine.folder / "summary"
    with summary.open("w") as output:
        program = wine.begin(output, "zpregmon.exe", "monitor", "-f", "csv", "-o", events.name)
        deadline = time.monotonic() + 60
        while not (events.exists() and numbers(events)) and time.monotonic() < deadline:
            time.sleep(0.05)
        program.send_signal(signal.SIGINT)
        status = program.wait(60)
    found = numbers(events)
    expect_sequence(found)
    if status != 0 or f"events{len(found):>28}\n" not in summary.read_text():
        sys.exit(f"interrupted, monitor ended with {status}: {summary.read_text()}")


def check_driver(wine):
    expect(wine.zpregmon("install"), 0, "installed")
    expect(wine.zpregmon("start"), 0, "zpklib: started\nzpregflt: started\n")
    expect(wine.zpregmon("start"), 0, "zpregflt: was running already")
    check_monitor(wine)
    check_interruption(wine)
    expect(wine.zpregmon("stop"), 0, "zpregflt: stopped\nzpklib: stopped\n")
    expect(wine.zpregmon("stop"), 0, "zpregflt: was not running")
    expect(wine.zpregmon("monitor"), 1, "the driver is not loaded")
    expect(wine.zpregmon("start"), 0, "zpregflt: started")
    wine.run("sc", "delete", "zpregflt")  # which stays until it is stopped, and a second time fails
    expect(wine.zpregmon("uninstall"), 0, "uninstalled")
    expect_nothing_installed(wine)


def find_linux_program(source):
    """One that was built since the decoder and the formats were changed, or None."""
    changed = max(path.stat().st_mtime for path in (source / "src/client").iterdir())
    programs = [source / "build" / preset / "zpregmon"
                for preset in ("release", "debug", "asan", "tsan")]
    return next((path for path in programs
                 if path.exists() and path.stat().st_mtime >= changed), None)


def check_decoding(wine, source):
    """Every format's bytes are those of the program for Linux, if that has been built."""
    program = find_linux_program(source)
    if program is None:
        print("decoding not compared: the program for Linux is not built, or old")
        return
    dump = wine.folder / "dümp.dump"
    subprocess.run([program, "replay", source / "samples/wineboot.jsonl.gz", "--operations",
                    "0x3fffff", "--buffers", "4", "--dump-file", dump, "-o", os.devnull],
                   check=True, stderr=subprocess.DEVNULL)
    for name in FORMATS:
        expected = subprocess.run([program, "decode", "-f", name, dump], check=True,
                                  stdout=subprocess.PIPE).stdout
        expect(wine.zpregmon("decode", dump.name, "-f", name, "-o", "decoded"), 0, "")
        if not expected or (wine.folder / "decoded").read_bytes() != expected:
            sys.exit(f"{name}: decoded otherwise than on Linux")
    expect(wine.zpregmon("decode", dump.name, "-o", "./" + dump.name), 2, "names this file twice")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", type=Path, required=True, help="zpregmon.exe")
    parser.add_argument("--stand-ins", type=Path, required=True, help="folder of the drivers")
    parser.add_argument("--source", type=Path, required=True, help="the source tree")
    arguments = parser.parse_args()
    program = find_wine()
    if program is None:
        print("skipped: Wine is not installed")
        sys.exit(SKIPPED)
    with tempfile.TemporaryDirectory() as folder, Wine(program, Path(folder)) as wine:
        shutil.copy(arguments.program, folder)
        check_without_driver(wine)
        for name in ("zpklib.sys", "zpregflt.sys"):
            shutil.copy(arguments.stand_ins / name, folder)
        check_installation(wine)
        check_driver(wine)
        check_decoding(wine, arguments.source)


if __name__ == "__main__":
    main()
