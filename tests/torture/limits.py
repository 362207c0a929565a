"""The service with too little of everything: memory, descriptors, processes, file size, disk, rights."""

import contextlib
import os
import re
import signal

import certificate
from desk import CHILDREN, Damage, eventually, read, require

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
        self.target, self.saved = self.folder / "a.conf", self.folder / "a.conf.org"
        self.target.write_bytes(TARGET)
        desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                       [desk.note("in"), f"parallel {desk.note('beside')}", f"set -config {self.target}"],
                       [f"set -config {self.target}", desk.note("out")])

    def as_user(self, *owned):
        """The words that start a program as another user, who owns the desk, the target, and what else is named."""
        user = FIRST_USER + self.tally.index % 1000
        for entry in (self.desk.folder, self.desk.path("readers"), self.target, *owned):
            os.chown(entry, user, user)
        return ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]

    def go_through(self, before, started=True):
        """One insertion, one removal and the end, whatever fails meanwhile. Not `started`: the start may fail too."""
        desk = self.desk
        desk.start(before=before)
        self.await_trace(b"Watch - Event", 0.7)
        desk.insert(certificate.ann())
        self.await_trace(b"Connected slot", 2)
        self.look()
        if self.target.read_bytes() == FILLED:
            self.tally.counted("(enough to fill the file all the same)")
        desk.remove()
        self.await_trace(b"Disconnected slot", 1.8)
        if desk.process.poll() is None:
            desk.stop()
        else:
            self.judge_early_end(desk.process.returncode, started)
        self.look()

    def await_trace(self, text, limit):
        eventually(lambda: self.desk.process.poll() is not None or text in self.desk.trace(), limit)

    def judge_early_end(self, code, started):
        self.desk.check_reports()
        errors = read(self.desk.path("stderr.txt"))
        # The loader, or prlimit itself, had not enough for the program to begin.
        if not self.desk.trace() and (code == -signal.SIGSEGV and not started or code in (126, 127) or code > 0 and
                                      re.search(b"error while loading|failed to execute|cannot", errors)):
            self.tally.counted("(the program itself could not start)")
        elif code == 0 and errors and not started:
            self.tally.counted("(it ended in order and said why)")
        else:
            self.desk.check_alive()

    def look(self):
        """The file is whole, and what is said to be done was done."""
        text, saved = read(self.target), read(self.saved, None)
        if text not in (TARGET, FILLED, CLEARED, EMPTIED):
            self.desk.path("torn").write_bytes(text)
            raise Damage("the file was left damaged")
        require(saved in (None, TARGET), "the saved copy was left damaged")
        require(text not in (FILLED, CLEARED) or saved is not None, "a file was filled without a saved copy")
        trace = self.desk.trace()
        last = trace.rpartition(b"Watch - Set command ... ")[2]
        require(b"Remove event" in trace or not last.startswith(b"OK") or text == FILLED,
                "a set command said OK and had not filled its file")


def memory(scene):
    scene.go_through(["prlimit", f"--as={scene.random.randrange(3 << 20, 60 << 20)}"], started=False)


def descriptors(scene):
    scene.go_through(["prlimit", f"--nofile={scene.random.randrange(3, 24)}"], started=False)


def file_size(scene):
    scene.go_through(["prlimit", f"--fsize={scene.random.choice((0, 1, 100, 1000, 4096, 5000, 9000, 20000))}"])


def processes(scene):
    scene.go_through(["prlimit", f"--nproc={scene.random.randrange(1, 4)}", *scene.as_user(scene.folder)])


def unwritable_folder(scene):
    scene.go_through(scene.as_user())


def full_disk(scene):
    """The target's folder, a small file system by now, has some pages left, or none."""
    try:
        scene.target.write_bytes(TARGET)
        left = scene.random.randrange(0, 6)
        with open(scene.folder / "filling", "wb", buffering=0) as filling:
            with contextlib.suppress(OSError):
                while True:
                    filling.write(b"x" * PAGE)
            filling.truncate(max(0, filling.tell() - left * PAGE))
        scene.go_through([])
    finally:
        CHILDREN.run("umount", "-l", str(scene.folder))


def mount(folder):
    return CHILDREN.run("mount", "-t", "tmpfs", "-o", f"size={16 * PAGE},nr_inodes=20", "torture", str(folder))


KINDS = (("memory (RLIMIT_AS)", memory), ("descriptors (RLIMIT_NOFILE)", descriptors),
         ("file size (RLIMIT_FSIZE)", file_size), ("processes (RLIMIT_NPROC)", processes),
         ("a folder that cannot be written", unwritable_folder), ("a full disk", full_disk))


def trial(desk, random, tally):
    label, limit = KINDS[tally.index % len(KINDS)]
    scene = Scene(desk, random, tally)
    if limit in (memory, descriptors, processes) and desk.tools.sanitized:
        tally.skip(label, "the sanitizers need them")
    elif limit in (processes, unwritable_folder, full_disk) and os.getuid() != 0:
        tally.skip(label, "only as root")
    elif limit is full_disk and not mount(scene.folder):
        tally.skip(label, "nothing can be mounted here")
    else:
        tally.tried(label)
        limit(scene)
