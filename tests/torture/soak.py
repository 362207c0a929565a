"""Insertions and removals without end, with every keyword; what the process holds is sampled."""

import os
from pathlib import Path
from statistics import median

import certificate
from desk import children_of, eventually, pause, require

LANES = 2
WEIGHT = None  # runs beside the other kinds all the time
TARGET = "[Mail]\nUsername=\nDomain=\nGreeting=%USERNAME% of %OID.O%\n"
MAX_GROWTH = 512  # KiB of resident memory between the first and the last quarter
MIN_ROUNDS = 16


def configure(desk):
    a, b, c, d = (desk.write(name, TARGET) for name in ("a.conf", "b.conf", "c.conf", "d.conf"))
    note, path, called = desk.note, desk.path, desk.tools.called
    insert = [note("in"), f'application "{path("note")}" "%UPN%"', f"parallel {note('beside')}", f"set -config {a}",
              f"parallel set -config {b}", f"load {called},Called {path('loaded')}",
              f"extern {called},ann;example -config {c}", f"parallel extern {called},ann;example -config {d}",
              f"open {path('none.txt')}", f"script {path('none.txt')}", "kill x", "-r x", "close x"]
    remove = [f"set -config {a}", f"parallel set -config {b}", "-l x", "close x", f"/bin/echo gone > {path('gone')}",
              note("out")]
    desk.configure('-match "o=Example Org" -sync -term -recognized config Watch', insert, remove)


def sample(process):
    """Descriptors, threads, children, and resident KiB, when what runs beside has had its time."""
    root = Path("/proc", str(process))

    def counts():
        return len(os.listdir(root / "fd")), len(os.listdir(root / "task")), len(children_of(process))
    eventually(lambda: counts()[1:] == (1, 0), 5, 0.1)
    return *counts(), int((root / "statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def judge(samples, may_grow):
    quarter = len(samples) // 4
    descriptors, threads, children, memory = zip(*samples)
    for held, what in ((descriptors, "descriptors"), (threads, "threads"), (children, "children")):
        require(max(held[-quarter:]) <= max(held[:quarter]), f"{what} grew in {len(samples)} rounds")
    before, after = median(memory[:quarter]), median(memory[-quarter:])
    print(f"soak: {descriptors[0]} descriptors, {threads[0]} thread, {children[0]} children throughout; "
          f"{before:.0f} KiB at first, {after:.0f} KiB at last")
    require(may_grow or after - before <= MAX_GROWTH, f"memory grew by {after - before} KiB in {len(samples)} rounds")


def trial(desk, random, tally):
    configure(desk)
    desk.start()
    samples = []
    while not tally.is_over():
        tally.tried("insertions and removals")
        desk.insert(certificate.ann())
        require(desk.noted("in", len(samples) + 1), "an insertion was not seen")
        pause(random.choice((0.1, 0.8, 1.5)))
        desk.remove()
        require(desk.noted("out", len(samples) + 1), "a removal was not seen")
        samples.append(sample(desk.process.pid))
    if len(samples) >= MIN_ROUNDS:
        judge(samples, desk.tools.sanitized)
    else:
        print(f"soak: too short to judge growth ({len(samples)} of {MIN_ROUNDS} rounds)")
    desk.stop()
