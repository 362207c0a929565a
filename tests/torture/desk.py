"""A desk of its own for one trial: a home, card readers, configuration files and the service."""

import os
import re
import shutil
import signal
import subprocess
import threading
import time
from pathlib import Path

REPORTS = re.compile(rb"ERROR: \w+Sanitizer|runtime error:|WARNING: ThreadSanitizer")


class Damage(Exception):
    """What must not happen has happened; the text says what."""


class Interrupted(Exception):
    """The campaign was stopped from outside."""


class Children:
    """Every process that the campaign starts, and what these leave over."""

    def __init__(self):
        self.lock = threading.Lock()
        self.running = {}

    def start(self, *arguments, **options):
        with self.lock:  # the reaper must not take a process before its number stands in the table
            process = subprocess.Popen(*arguments, stdin=subprocess.DEVNULL, start_new_session=True, **options)
            self.running[process.pid] = process
        return process

    def run(self, *arguments):
        """Runs a program to its end; whether it succeeded."""
        process = self.start(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        code = process.wait()
        self.ended(process)
        return code == 0

    def ended(self, process):
        with self.lock:
            self.running.pop(process.pid, None)

    @staticmethod
    def of(parent):
        """The processes whose parent this is, with their state letters."""
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                fields = Path("/proc", entry, "stat").read_bytes().rpartition(b")")[2].split()
            except OSError:
                continue
            if int(fields[1]) == parent:
                found.append((int(entry), fields[0].decode()))
        return found

    def reap_orphans(self):
        """Orphans become children of the campaign, which is their subreaper."""
        with self.lock:
            for process, state in self.of(os.getpid()):
                if state == "Z" and process not in self.running:
                    os.waitpid(process, os.WNOHANG)

    def kill_all(self):
        """Kills what still runs below this process, and again what becomes an orphan by that."""
        for _ in range(100):
            below = self.of(os.getpid())
            if not below:
                return
            for process, state in below:
                try:
                    if state != "Z":
                        os.kill(process, signal.SIGKILL)
                    os.waitpid(process, 0)
                except (ChildProcessError, ProcessLookupError):
                    pass


CHILDREN = Children()
STOP = threading.Event()


def pause(seconds):
    if STOP.wait(seconds):
        raise Interrupted()


def eventually(condition, limit, step=0.02):
    """Polls until the condition holds; false when it does not within the limit, in seconds."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            return False
        pause(step)
    return True


def replace(path, content):
    """Writes a file in one step, so that nobody sees half of it."""
    made = Path(f"{path}.made")
    made.write_bytes(content if isinstance(content, bytes) else content.encode())
    made.rename(path)


class Desk:
    def __init__(self, tools, folder):
        self.tools = tools
        self.folder = Path(folder)
        self.folder.mkdir(parents=True)
        self.folder.chmod(0o755)
        self.library = tools.softcard.parent
        self.trace_file = self.folder / "trace.log"
        self.process = None
        self.variables = {
            "HOME": str(self.folder), "PATH": "/usr/bin:/bin", "TMPDIR": str(self.folder),
            "qixconfigglobal": str(self.folder / "system.conf"),
            "QIXX_SOFTCARD": str(self.folder / "readers"),
            "QIXX_TORTURE_MODULE": str(tools.softcard),
            "QIXX_TORTURE_ORDER": str(self.folder / "order"),
            "QIXX_TORTURE_DONE": str(self.folder / "done"),
            "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1:handle_segv=1", "UBSAN_OPTIONS": "print_stacktrace=1",
        }
        self.reader(1).mkdir(parents=True)

    def path(self, name):
        return self.folder / name

    def reader(self, slot):
        return self.folder / "readers" / str(slot)

    def configure(self, watch, insert=(), remove=(), more=""):
        def entries(commands):
            return "".join(f"{number}={command}\n" for number, command in enumerate(commands, 1))
        self.path("system.conf").write_bytes(os.fsencode(
            f"[Trace]\nwatch={self.trace_file}\n[Install]\nDirectory={self.library}/\n[Command]\nWatch={watch}\n"
            f"[Watch Insert]\n{entries(insert)}[Watch Remove]\n{entries(remove)}{more}"))

    def insert(self, slot=1, certificates=()):
        made = self.reader(slot) / "card.new"
        made.mkdir()
        for number, certificate in enumerate(certificates):
            (made / f"{number}.der").write_bytes(certificate)
        made.rename(self.reader(slot) / "card")

    def remove(self, slot=1):
        card = self.reader(slot) / "card"
        if card.exists():
            card.rename(self.reader(slot) / "card.old")
            shutil.rmtree(self.reader(slot) / "card.old")

    def order(self, function, first, last, deed):
        replace(self.path("order"), f"{function} {first} {last} {deed}")

    def start(self, *arguments, before=()):
        """Starts the service; `before` is a command that starts it, such as prlimit."""
        with open(self.path("stderr.txt"), "ab") as errors:
            self.process = CHILDREN.start([*before, str(self.tools.program), *arguments], stdout=errors,
                                          stderr=errors, cwd=self.folder, env=self.variables)

    def wait(self, limit):
        """The exit code, or minus the ending signal; none when it has not ended."""
        try:
            code = self.process.wait(limit)
        except subprocess.TimeoutExpired:
            return None
        CHILDREN.ended(self.process)
        self.process = None
        return code

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.wait(10)

    def stop(self, limit=20):
        """Ends the service in order and checks that it does so, once it has set itself up for that."""
        eventually(lambda: self.process.poll() is not None or self.minds_signals(), 10, 0.01)
        self.check_alive()
        self.process.send_signal(signal.SIGTERM)
        code = self.wait(limit)
        if code is None:
            self.kill()
            raise Damage(f"SIGTERM did not end the service within {limit} s")
        self.check_end(code)

    def minds_signals(self):
        try:
            status = Path("/proc", str(self.process.pid), "status").read_text(encoding="ascii", errors="replace")
        except OSError:
            return False
        caught = re.search(r"^SigCgt:\s*([0-9a-f]+)", status, re.MULTILINE)
        return caught is not None and int(caught.group(1), 16) >> (signal.SIGTERM - 1) & 1 == 1

    def check_alive(self):
        code = self.process.poll()
        if code is not None:
            self.wait(1)
            self.check_end(code)
            raise Damage("the service ended by itself")

    def check_end(self, code):
        self.check_reports()
        if code < 0:
            raise Damage(f"the service was ended by {signal.Signals(-code).name}")
        if code > 0:
            raise Damage(f"the service ended with code {code}")

    def check_reports(self):
        errors = self.path("stderr.txt")
        if errors.exists() and REPORTS.search(errors.read_bytes()):
            raise Damage("the sanitizer has reported a fault")

    def trace(self):
        try:
            return self.trace_file.read_bytes()
        except OSError:
            return b""

    def traced(self, text, count=1, limit=15, step=0.02):
        """Waits until the trace holds the text, and the service must go on meanwhile."""
        def found():
            if self.trace().count(text.encode()) >= count:
                return True
            self.check_alive()
            return False
        return eventually(found, limit, step)

    def notes(self):
        """What the commands of `note` were told, in order."""
        try:
            return self.path("notes").read_text(encoding="utf-8", errors="replace").split()
        except OSError:
            return []

    def note(self, word):
        """A command that adds a word to the notes."""
        program = self.path("note")
        if not program.exists():
            program.write_text(f'#!/bin/sh\necho "$1" >>"{self.path("notes")}"\n', encoding="utf-8")
            program.chmod(0o755)
        return f"{program} {word}"
