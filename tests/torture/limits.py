"""The service with too little of everything: memory, descriptors, processes, file size, disk, rights."""

import contextlib
import os
import signal
import subprocess

import certificate
from desk import Damage, eventually, read, require

LANES = 6
WEIGHT = 12
# Nobody's: the limit on processes counts all of one user. Each lane's trial takes another one.
FIRST_USER = 61000
PAGE = 4096


def text_of(user, greeting, domain):
    return b"[Mail]\nUsername=%s\nGreeting=%s\n%s%s" % (user, greeting, FILLING, domain)


FILLING = b"Entry=filling\n" * 300
TARGET = text_of(b"", b"%USERNAME% %SUBJECT%", b"")
FILLED = text_of(b"ann", b"ann o=Example Org,cn=Ann Lee", b"Domain=tessaly.example\n")
CLEARED = text_of(b"", b"ann o=Example Org,cn=Ann Lee", b"Domain=\n")
# After an insertion that failed: the original, cleared.
EMPTIED = text_of(b"", b"%USERNAME% ", b"Domain=\n")


class Scene:
    def __init__(self, desk, random, tally):
        self.desk, self.random, self.tally = desk, random, tally
        self.folder = desk.path("target")
        self.folder.mkdir()
        self.target, self.saved = desk.write("target/a.conf", TARGET), desk.path("target/a.conf.org")
        desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                       [desk.note("in"), f"parallel {desk.note('beside')}", f"set -config {self.target}"],
                       [f"set -config {self.target}", desk.note("out")])

    def as_user(self, *owned):
        """The words that start a program as another user, who owns the desk, the target, and what else is named."""
        user = str(FIRST_USER + self.tally.index % 1000)
        run("chown", f"{user}:{user}", self.desk.folder, self.desk.path("readers"), self.target, *owned)
        return ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]

    def go_through(self, before, started=True):
        """One insertion, one removal and the end, whatever fails meanwhile. Not `started`: the start may fail too."""
        desk = self.desk
        desk.start(before=before)
        self.await_trace(b"Watch - Event", 0.7)
        desk.insert(certificate.ann())
        self.await_trace(b"Connected slot", 2)
        self.look()
        self.tally.counted("(enough to fill the file all the same)", self.target.read_bytes() == FILLED)
        desk.remove()
        self.await_trace(b"Disconnected slot", 1.8)
        code = desk.process.poll()
        errors = read(desk.path("stderr.txt"))
        # The loader, or prlimit itself, may not have enough for the program to begin.
        has_not_begun = not desk.trace() and (code == -signal.SIGSEGV and not started or (code or 0) > 0 and errors)
        if code is not None and (has_not_begun or code == 0 and errors and not started):
            desk.check_reports()
            self.tally.counted("(it could not start)")
        else:
            desk.stop()
        self.look()

    def await_trace(self, text, limit):
        eventually(lambda: self.desk.process.poll() is not None or text in self.desk.trace(), limit)

    def look(self):
        """The file is whole, and what is said to be done was done."""
        text, saved = read(self.target), read(self.saved, None)
        if text not in (TARGET, FILLED, CLEARED, EMPTIED):
            self.desk.write("torn", text)
            raise Damage("the file was left damaged")
        require(saved in (None, TARGET), "the saved copy was left damaged")
        require(text not in (FILLED, CLEARED) or saved is not None, "a file was filled without a saved copy")
        trace = self.desk.trace()
        last = trace.rpartition(b"Watch - Set command ... ")[2]
        require(b"Remove event" in trace or not last.startswith(b"OK") or text == FILLED,
                "a set command said OK and had not filled its file")

    def fill_disk(self):
        """The target's folder, a small file system by now, has some pages left, or none."""
        self.target.write_bytes(TARGET)
        with open(self.folder / "filling", "wb", buffering=0) as filling:
            with contextlib.suppress(OSError):
                while True:
                    filling.write(b"x" * PAGE)
            filling.truncate(max(0, filling.tell() - self.random.randrange(0, 6) * PAGE))


def run(*arguments):
    return subprocess.run(arguments, stderr=subprocess.DEVNULL, check=False).returncode == 0


MEMORY, DESCRIPTORS, SIZE = "memory (RLIMIT_AS)", "descriptors (RLIMIT_NOFILE)", "file size (RLIMIT_FSIZE)"
PROCESSES, FOLDER, DISK = "processes (RLIMIT_NPROC)", "a folder that cannot be written", "a full disk"
# What prlimit is told, for each kind.
KINDS = {MEMORY: lambda random: [f"--as={random.randrange(3 << 20, 60 << 20)}"],
         DESCRIPTORS: lambda random: [f"--nofile={random.randrange(3, 24)}"],
         SIZE: lambda random: [f"--fsize={random.choice((0, 1, 100, 1000, 4096, 5000, 9000, 20000))}"],
         PROCESSES: lambda random: [f"--nproc={random.randrange(1, 4)}"],
         FOLDER: lambda _: [], DISK: lambda _: []}


def trial(desk, random, tally):
    kind = list(KINDS)[tally.index % len(KINDS)]
    scene = Scene(desk, random, tally)
    if kind in (MEMORY, DESCRIPTORS, PROCESSES) and desk.tools.sanitized:
        return tally.skip(kind, "the sanitizers need them")
    if kind in (PROCESSES, FOLDER, DISK) and os.getuid() != 0:
        return tally.skip(kind, "only as root")
    if kind == DISK and not run("mount", "-t", "tmpfs", "-o", f"size={16 * PAGE},nr_inodes=20", "torture", scene.folder):
        return tally.skip(kind, "nothing can be mounted here")
    tally.tried(kind)
    owned = {PROCESSES: [scene.folder], FOLDER: []}
    user = scene.as_user(*owned[kind]) if kind in owned else []
    try:
        if kind == DISK:
            scene.fill_disk()
        scene.go_through(["prlimit", *KINDS[kind](random), *user], started=kind not in (MEMORY, DESCRIPTORS))
    finally:
        if kind == DISK:
            run("umount", "-l", scene.folder)
