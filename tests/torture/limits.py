"""The service with too little of everything: memory, descriptors, processes, file size, disk."""

import os
import re
import signal
import subprocess

import certificate
from desk import eventually, read, require

LANES = 6
WEIGHT = 12
# Nobody's: the limit on processes counts all of one user. Each lane's trial takes another one.
FIRST_USER = 61000
FILLING = b"Entry=filling\n" * 300
TARGET = b"[Mail]\nUsername=\n%sGreeting=%%USERNAME%% %%SUBJECT%%\n" % FILLING
WHOLE = re.compile(rb"\[Mail\]\nUsername=(ann)?\n%sGreeting=.*\n(Domain=.*\n)?" % FILLING)


def run(*arguments):
    return subprocess.run(arguments, stderr=subprocess.DEVNULL, check=False).returncode == 0


def go_through(desk, tally, target, before, started):
    """One insertion, one removal and the end, whatever fails meanwhile. Not `started`: the start may fail too."""
    def await_trace(text, limit):
        eventually(lambda: desk.process.poll() is not None or text in desk.trace(), limit)
    desk.start(before=before)
    await_trace(b"Watch - Event", 0.7)
    desk.insert(certificate.ann())
    await_trace(b"Connected slot", 2)
    look(desk, target)
    tally.counted("(enough to fill the file all the same)", b"=ann\n" in target.read_bytes())
    desk.remove()
    await_trace(b"Disconnected slot", 1.8)
    # The loader, or prlimit itself, may not have enough for the program to begin.
    code, said = desk.process.poll(), read(desk.path("stderr.txt"))
    if not started and (code == 0 and said or code == -signal.SIGSEGV and not desk.trace()) or (
            (code or 0) > 0 and said and not desk.trace()):
        tally.counted("(it could not start)")
    else:
        desk.stop()
    look(desk, target)


def look(desk, target):
    """The file is whole, and what is said to be done was done."""
    text, saved, trace = read(target), read(target.with_suffix(".conf.org"), None), desk.trace()
    require(WHOLE.fullmatch(text), "the file was left damaged")
    require(saved in (None, TARGET), "the saved copy was left damaged")
    require(b"=ann" not in text or saved is not None, "a file was filled without a saved copy")
    last = trace.rpartition(b"Watch - Set command ... ")[2]
    require(b"Remove event" in trace or not last.startswith(b"OK") or b"=ann\n" in text,
            "a set command said OK and had not filled its file")


MEMORY, DESCRIPTORS, SIZE = "memory (RLIMIT_AS)", "descriptors (RLIMIT_NOFILE)", "file size (RLIMIT_FSIZE)"
PROCESSES, DISK = "processes (RLIMIT_NPROC)", "a full disk"
# What prlimit is told, for each kind.
KINDS = {MEMORY: lambda random: [f"--as={random.randrange(3 << 20, 60 << 20)}"],
         DESCRIPTORS: lambda random: [f"--nofile={random.randrange(3, 24)}"],
         SIZE: lambda random: [f"--fsize={random.choice((0, 1, 100, 1000, 4096, 5000, 9000, 20000))}"],
         PROCESSES: lambda random: [f"--nproc={random.randrange(1, 4)}"],
         DISK: lambda _: []}


def trial(desk, random, tally):
    kind = list(KINDS)[tally.index % len(KINDS)]
    if kind in (MEMORY, DESCRIPTORS, PROCESSES) and tally.plan.sanitized:
        return tally.skip("left out, the sanitizers need more")
    if kind in (PROCESSES, DISK) and os.getuid() != 0:
        return tally.skip("left out, only for root")
    folder, size = desk.path("target"), f"size={random.randrange(2, 9) * 4096},nr_inodes=20"  # one to four files
    folder.mkdir()
    if kind == DISK and not run("mount", "-t", "tmpfs", "-o", size, "torture", folder):
        return tally.skip("left out, nothing can be mounted")
    tally.tried(kind)
    target, before = desk.write("target/a.conf", ""), ["prlimit", *KINDS[kind](random)]
    target.write_bytes(TARGET)  # in place, for want of room
    desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                   [desk.note("in"), f"parallel {desk.note('beside')}", f"set -config {target}"],
                   [f"set -config {target}", desk.note("out")])
    if kind == PROCESSES:
        user = str(FIRST_USER + tally.index % 1000)
        run("chown", "-R", f"{user}:{user}", desk.folder)
        before += ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
    try:
        go_through(desk, tally, target, before, started=kind not in (MEMORY, DESCRIPTORS))
    finally:
        run("umount", "-l", folder)
