"""Insertions and removals without end, with every keyword; what the process holds is sampled."""

import os
from pathlib import Path
from statistics import median

import certificate
from desk import CHILDREN, Damage, eventually, pause

LANES = 2
WEIGHT = None  # runs beside the other kinds all the time
TARGET = "[Mail]\nUsername=\nDomain=\nGreeting=%USERNAME% of %OID.O%\n"
MAX_GROWTH = 512  # KiB of resident memory between the first and the last quarter
MIN_ROUNDS = 16


def configure(desk):
    for name in ("a.conf", "b.conf", "c.conf", "d.conf"):
        desk.path(name).write_text(TARGET, encoding="utf-8")
    note, path, called = desk.note, desk.path, desk.tools.called
    insert = [note("in"), f'application "{path("note")}" "%UPN%"', f"parallel {note('beside')}",
              f"set -config {path('a.conf')}", f"parallel set -config {path('b.conf')}",
              f"load {called},Called {path('loaded')}", f"extern {called},ann;example -config {path('c.conf')}",
              f"parallel extern {called},ann;example -config {path('d.conf')}",
              f"open {path('none.txt')}", f"script {path('none.txt')}", "kill x", "-r x", "close x"]
    remove = [f"set -config {path('a.conf')}", f"parallel set -config {path('b.conf')}", "-l x", "close x",
              f"/bin/echo gone > {path('gone')}", note("out")]
    desk.configure('-match "o=Example Org" -sync -term -recognized config Watch', insert, remove)


def sample(process):
    """Descriptors, threads, children, and resident KiB, when what runs beside has had its time."""
    root = Path("/proc", str(process))
    eventually(lambda: len(os.listdir(root / "task")) == 1 and not CHILDREN.of(process), 5, 0.1)
    pages = int((root / "statm").read_text().split()[1])
    return (len(os.listdir(root / "fd")), len(os.listdir(root / "task")), len(CHILDREN.of(process)),
            pages * os.sysconf("SC_PAGE_SIZE") // 1024)


def judge(desk, samples, tally):
    quarter = max(1, len(samples) // 4)
    first, last = samples[:quarter], samples[-quarter:]
    for index, what in enumerate(("descriptors", "threads", "children")):
        before, after = (max(one[index] for one in part) for part in (first, last))
        if after > before:
            raise Damage(f"{what} grew from {before} to {after} in {len(samples)} rounds")
    before, after = (median(one[3] for one in part) for part in (first, last))
    tally.remark(f"{first[-1][0]} descriptors, {first[-1][1]} thread, {first[-1][2]} children throughout; "
                 f"{before:.0f} KiB at first, {after:.0f} KiB at last")
    if not desk.tools.sanitized and after - before > MAX_GROWTH:
        raise Damage(f"memory grew from {before:.0f} to {after:.0f} KiB in {len(samples)} rounds")


def trial(desk, random, tally):
    label = "insertions and removals"
    configure(desk)
    desk.start()
    samples = []
    while not tally.is_over():
        tally.tried(label)
        desk.insert(certificates=[certificate.ann()])
        if not eventually(lambda: desk.notes().count("in") > len(samples), 20, 0.1):
            desk.check_alive()
            raise Damage("an insertion was not seen")
        pause(random.choice((0.1, 0.8, 1.5)))
        desk.remove()
        if not eventually(lambda: desk.notes().count("out") > len(samples), 20, 0.1):
            desk.check_alive()
            raise Damage("a removal was not seen")
        samples.append(sample(desk.process.pid))
    if len(samples) >= MIN_ROUNDS:
        judge(desk, samples, tally)
    else:
        tally.remark(f"too short to judge growth ({len(samples)} of {MIN_ROUNDS} rounds)")
    desk.stop()
