"""Insertions and removals without end, with every keyword; what the process holds is sampled."""

import os
import time
from pathlib import Path
from statistics import median

import certificate
from desk import children_of, eventually, require

LANES = 2
WEIGHT = True  # beside the other kinds all the time
TARGET = "[Mail]\nUsername=\nDomain=\nGreeting=%USERNAME% of %OID.O%\n"
MAX_GROWTH = 512  # KiB of resident memory between the first and the last quarter
MIN_ROUNDS = 16


def configure(desk):
    a, b, c, d = (desk.write(name, TARGET) for name in ("a.conf", "b.conf", "c.conf", "d.conf"))
    note, path = desk.note, desk.path
    insert = [note("in"), f'application "{path("note")}" "%UPN%"', f"parallel {note('beside')}", f"set -config {a}",
              f"parallel set -config {b}", f"load {desk.called},ReadCommand x",
              f"extern {desk.called},ann;example -config {c}", f"parallel extern {desk.called},ann;example -config {d}",
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
    *counts, memory = zip(*samples)
    for held, what in zip(counts, ("descriptors", "threads", "children")):
        require(max(held[-quarter:]) <= max(held[:quarter]), f"{what} grew in {len(samples)} rounds")
    before, after = median(memory[:quarter]), median(memory[-quarter:])
    print(f"soak: {samples[0][:3]} descriptors, threads, children; {before:.0f} KiB at first, {after:.0f} KiB at last")
    require(may_grow or after - before <= MAX_GROWTH, f"memory grew by {after - before} KiB in {len(samples)} rounds")


def trial(desk, random, tally):
    configure(desk)
    desk.start()
    samples = []
    while time.monotonic() < tally.deadline:
        tally.tried("insertions and removals")
        desk.insert(certificate.ann())
        require(desk.noted("in", len(samples) + 1), "an insertion was not seen")
        time.sleep(random.choice((0.1, 0.8, 1.5)))
        desk.remove()
        require(desk.noted("out", len(samples) + 1), "a removal was not seen")
        samples.append(sample(desk.process.pid))
    if len(samples) >= MIN_ROUNDS:
        judge(samples, tally.plan.sanitized)
    desk.stop()
