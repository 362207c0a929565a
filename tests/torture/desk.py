"""A desk of its own for one trial: a home, card readers, configuration files and the service."""

import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path



class Damage(Exception):
    """What must not happen has happened; the text says what."""


def require(holds, damage):
    if not holds:
        raise Damage(damage)


def eventually(condition, limit, step=0.02):
    """Polls until the condition holds; false when it does not within the limit, in seconds."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(step)
    return True


def read(path, otherwise=b""):
    """What the file holds, `otherwise` when it cannot be read."""
    try:
        return path.read_bytes()
    except OSError:
        return otherwise


def children_of(parent):
    """The processes whose parent this is, ended ones too."""
    of_threads = Path("/proc", str(parent), "task").glob("*/children")
    return {int(process) for children in of_threads for process in read(children).split()}


class Desk:
    def __init__(self, build, folder):
        self.folder, self.process = folder, None
        self.program, self.called = build / "qixxwatch", build / "libend_to_end_called.so"
        self.library, self.misbehaving = build / "softcard", build / "misbehaving"
        self.trace_file, self.card = self.path("trace.log"), self.path("readers/1/card")
        self.card.parent.mkdir(parents=True)
        self.folder.chmod(0o755)
        self.variables = {
            "HOME": str(folder), "PATH": "/usr/bin:/bin", "TMPDIR": str(folder),
            "qixconfigglobal": str(folder / "system.conf"), "QIXX_SOFTCARD": str(folder / "readers"),
            "QIXX_TORTURE_MODULE": str(self.library / "libqixp11.so"), "QIXX_TORTURE_ORDER": str(folder / "order"),
            "QIXX_TORTURE_DONE": str(folder / "done"),
            "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1:handle_segv=1", "UBSAN_OPTIONS": "print_stacktrace=1"}

    def path(self, name):
        return self.folder / name

    def write(self, name, content, mode=0o644):
        """Writes a file in one step, so that nobody sees half of it; its path."""
        made = self.path(f"{name}.made")
        made.write_bytes(content if isinstance(content, bytes) else content.encode())
        made.chmod(mode)
        return made.rename(self.path(name))

    def configure(self, watch, insert=(), remove=()):
        def entries(commands):
            return "".join(f"{number}={command}\n" for number, command in enumerate(commands, 1))
        self.write("system.conf", (
            f"[Trace]\nwatch={self.trace_file}\n[Install]\nDirectory={self.library}/\n[Command]\nWatch={watch}\n"
            f"[Watch Insert]\n{entries(insert)}[Watch Remove]\n{entries(remove)}"))

    def insert(self, certificate):
        self.path("readers/1/card.new").mkdir()
        self.write("readers/1/card.new/0.der", certificate)
        self.path("readers/1/card.new").rename(self.card)

    def remove(self):
        if self.card.exists():
            shutil.rmtree(self.card.rename(self.path("readers/1/card.old")))

    def start(self, *arguments, before=()):
        """Starts the service; `before` is a command that starts it, such as prlimit."""
        with open(self.path("stderr.txt"), "ab") as errors:
            self.process = subprocess.Popen(
                [*before, str(self.program), *arguments], stdin=subprocess.DEVNULL, stdout=errors,
                stderr=errors, cwd=self.folder, env=self.variables, start_new_session=True)

    def wait(self, limit=20):
        """The exit code, or minus the ending signal. It is damage that there is none within the limit."""
        try:
            return self.process.wait(limit)
        except subprocess.TimeoutExpired:
            raise Damage(f"the service did not end within {limit} s") from None

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def stop(self, limit=20):
        """Ends the service in order and checks that it does so, once it has set itself up for that."""
        eventually(lambda: self.process.poll() is not None or self.minds_signals(), 10, 0.01)
        self.check_alive()
        self.process.send_signal(signal.SIGTERM)
        code = self.wait(limit)
        require(code == 0, f"SIGTERM ended the service with {code}")

    def minds_signals(self):
        caught = re.search(rb"SigCgt:\s*(\w+)", read(Path("/proc", str(self.process.pid), "status")))
        return caught is not None and int(caught[1], 16) >> (signal.SIGTERM - 1) & 1

    def check_alive(self):
        code = self.process.poll()
        require(code is None, f"the service ended by itself with {code}")

    def trace(self):
        return read(self.trace_file)

    def goes_on_until(self, condition, limit, step=0.02):
        return eventually(lambda: condition() or self.check_alive(), limit, step)

    def traced(self, text, limit=15, step=0.02):
        """Waits until the trace holds the text, and the service must go on meanwhile."""
        return self.goes_on_until(lambda: text.encode() in self.trace(), limit, step)

    def notes(self, word):
        """How often the commands of `note` were told the word."""
        return read(self.path("notes")).split().count(word.encode())

    def noted(self, word, count=1, limit=20):
        """Waits until there are so many notes of the word, and the service must go on meanwhile."""
        return self.goes_on_until(lambda: self.notes(word) >= count, limit)

    def note(self, word):
        """A command that adds a word to the notes."""
        return f"""{self.script("note", f'echo "$1" >>"{self.path("notes")}"')} {word}"""

    def script(self, name, text):
        return self.write(name, f"#!/bin/sh\n{text}\n", 0o755)
