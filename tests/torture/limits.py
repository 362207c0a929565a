"""The service with too little of everything: memory, descriptors, processes, file size, disk, rights."""

import os
import signal

import certificate
from desk import CHILDREN, Damage, eventually, pause

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
WHOLE = (TARGET, FILLED, CLEARED, EMPTIED)


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
        eventually(lambda: desk.process.poll() is not None or b"Watch - Event" in desk.trace(), 0.7, 0.02)
        desk.insert(certificates=[certificate.ann()])
        eventually(lambda: desk.process.poll() is not None or b"Connected slot" in desk.trace(), 2)
        self.look()
        if self.target.read_bytes() == FILLED:
            self.tally.counted("(enough to fill the file all the same)")
        desk.remove()
        eventually(lambda: desk.process.poll() is not None or b"Disconnected slot" in desk.trace(), 1.8)
        code = desk.process.poll()
        if code is None:
            desk.stop()
        else:
            desk.wait(1)
            self.judge_early_end(code, started)
        self.look()

    def judge_early_end(self, code, started):
        self.desk.check_reports()
        errors = self.desk.path("stderr.txt").read_bytes()
        # The loader, or prlimit itself, had not enough for the program to begin.
        if code > 0 and not self.desk.trace() and (b"error while loading" in errors or b"failed to execute" in errors
                                                   or b"cannot" in errors or code in (126, 127)):
            self.tally.counted("(the program itself could not start)")
        elif code == -signal.SIGSEGV and not started and not self.desk.trace():
            self.tally.counted("(the program itself could not start)")
        elif code == 0 and errors and not started:
            self.tally.counted("(it ended in order and said why)")
        else:
            self.desk.check_end(code)
            raise Damage("the service ended by itself")

    def look(self):
        """The file is whole, and what is said to be done was done."""
        text = self.target.read_bytes() if self.target.exists() else None
        if text not in WHOLE:
            self.desk.path("torn").write_bytes(text or b"(no file)")
            raise Damage("the file was left damaged")
        if self.saved.exists() and self.saved.read_bytes() != TARGET:
            raise Damage("the saved copy was left damaged")
        if text in (FILLED, CLEARED) and not self.saved.exists():
            raise Damage("a file was filled without a saved copy")
        trace = self.desk.trace()
        last = trace.rpartition(b"Watch - Set command ... ")[2]
        if b"Remove event" not in trace and last.startswith(b"OK") and text != FILLED:
            raise Damage("a set command said OK and had not filled its file")


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
    """The target's folder is a small file system with some pages left, or none."""
    CHILDREN.run("mount", "-t", "tmpfs", "-o", f"size={16 * PAGE},nr_inodes=20", "torture", str(scene.folder))
    try:
        scene.target.write_bytes(TARGET)
        left = scene.random.randrange(0, 6)
        with open(scene.folder / "filling", "wb", buffering=0) as filling:
            try:
                while True:
                    filling.write(b"x" * PAGE)
            except OSError:
                pass
            filling.truncate(max(0, os.fstat(filling.fileno()).st_size - left * PAGE))
        scene.go_through([])
    finally:
        CHILDREN.run("umount", "-l", str(scene.folder))


KINDS = [("memory (RLIMIT_AS)", memory, False), ("descriptors (RLIMIT_NOFILE)", descriptors, False),
         ("file size (RLIMIT_FSIZE)", file_size, False), ("processes (RLIMIT_NPROC)", processes, True),
         ("a folder that cannot be written", unwritable_folder, True), ("a full disk", full_disk, True)]


def trial(desk, random, tally):
    label, limit, needs_root = KINDS[tally.index % len(KINDS)]
    if limit in (memory, descriptors, processes) and desk.tools.sanitized:
        tally.skip(label, "the sanitizers need them")
    elif needs_root and os.getuid() != 0:
        tally.skip(label, "only as root")
    elif limit is full_disk and not can_mount(desk):
        tally.skip(label, "nothing can be mounted here")
    else:
        tally.tried(label)
        limit(Scene(desk, random, tally))
        return
    pause(0.05)


def can_mount(desk):
    place = desk.path("place")
    place.mkdir()
    return CHILDREN.run("mount", "-t", "tmpfs", "torture", str(place)) and CHILDREN.run("umount", "-l", str(place))
