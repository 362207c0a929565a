"""The campaign: shares the time out among the kinds, runs their trials, prints what came of them.

campaign.py BUILD-FOLDER [MINUTES] [--only KIND] [--seed NUMBER] [--trial NUMBER]
"""

import argparse
import ctypes
import os
import random
import re
import shutil
import signal
import sys
import tempfile
import threading
import time
import traceback
from pathlib import Path

import certificates
import configurations
import kills
import library
import limits
import soak
import strangers
from desk import CHILDREN, STOP, Damage, Desk, Interrupted

KINDS = {"soak": soak, "library": library, "kills": kills, "certificates": certificates,
         "configurations": configurations, "limits": limits, "strangers": strangers}
PR_SET_CHILD_SUBREAPER = 36
WIDTH = 80
MAX_KEPT = 12  # folders of evidence, of each kind


class Tools:
    """What the trials drive."""

    def __init__(self, build):
        self.program = build / "qixxwatch"
        self.softcard = build / "softcard" / "libqixp11.so"
        self.misbehaving = build / "misbehaving" / "libqixp11.so"
        self.called = build / "libend_to_end_called.so"
        missing = [path for path in vars(self).values() if not path.exists()]
        if missing:
            sys.exit(f"torture: {missing[0]} has not been built")
        cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
        self.sanitized = re.search(r"^QIXX_SANITIZE:\w+=.", cache, re.MULTILINE) is not None


class Report:
    """How often what was tried, and what came of it."""

    def __init__(self):
        self.lock = threading.Lock()
        self.rows = {}  # (kind, label): [tried, damaged]
        self.skipped = {}
        self.remarks = []
        self.damages = []  # (kind, trial, text)

    def add(self, kind, label, tried=0, damaged=0):
        with self.lock:
            row = self.rows.setdefault((kind, label), [0, 0])
            row[0] += tried
            row[1] += damaged

    def is_damaged(self):
        return bool(self.damages)

    def show(self):
        print(f"\n{'kind':15}{'what was tried':39}{'times':>13}{'damaged':>13}\n" + "-" * WIDTH)
        last = None
        order = {name: place for place, name in enumerate(KINDS)}
        # A label in parentheses adds something to the others of its kind.
        for (kind, label), (tried, damaged) in sorted(
                self.rows.items(), key=lambda row: (order[row[0][0]], row[0][1].startswith("("), row[0][1])):
            print(f"{kind if kind != last else '':15}{label[:38]:39}{tried:>13,}{damaged:>13,}")
            last = kind
        for (kind, label), why in self.skipped.items():
            print(f"{kind:15}{label[:38]:39}  skipped: {why}")
        print("-" * WIDTH)
        for remark in self.remarks:
            print_wrapped(remark)


class Tally:
    """What a trial tells of itself."""

    def __init__(self, report, kind, seed, index, deadline):
        self.report, self.kind, self.seed, self.index, self.deadline = report, kind, seed, index, deadline
        self.label = "setting up"

    def tried(self, label):
        """What is being tried from now on: damage that ends the trial counts for it."""
        self.label = label
        self.counted(label)

    def counted(self, label, times=1):
        self.report.add(self.kind, label, tried=times)

    def damage(self, label, text, times=1):
        """Damage that does not end the trial."""
        self.report.add(self.kind, label, damaged=times)
        with self.report.lock:
            self.report.damages.append((self.kind, self.index, f"{label}: {text}"))

    def skip(self, label, why):
        with self.report.lock:
            self.report.skipped[(self.kind, label)] = why

    def remark(self, text):
        with self.report.lock:
            self.report.remarks.append(f"{self.kind}: {text}")

    def is_over(self):
        return STOP.is_set() or time.monotonic() > self.deadline


def print_wrapped(text):
    words, line = text.split(), ""
    for word in words:
        if line and len(line) + 1 + len(word) > WIDTH:
            print(line)
            line = "   "
        line = f"{line} {word}" if line else word
    print(line)


class Kind:
    """Runs the trials of one kind on some lanes until its time is over."""

    def __init__(self, campaign, name, deadline):
        self.campaign, self.name, self.module, self.deadline = campaign, name, KINDS[name], deadline
        self.lock = threading.Lock()
        self.next = 0
        self.kept = 0
        self.threads = []

    def run(self, only=None):
        indexes = iter([only]) if only is not None else None
        lanes = 1 if only is not None else self.module.LANES
        self.threads = [threading.Thread(target=self.lane, args=(indexes,)) for _ in range(lanes)]
        for thread in self.threads:
            thread.start()

    def join(self):
        for thread in self.threads:
            while thread.is_alive():
                thread.join(0.5)
                CHILDREN.reap_orphans()

    def take_index(self, indexes):
        with self.lock:
            if indexes is not None:
                return next(indexes, None)
            self.next += 1
            return self.next - 1

    def lane(self, indexes):
        while not STOP.is_set() and time.monotonic() < self.deadline:
            index = self.take_index(indexes)
            if index is None:
                return
            self.trial(index)

    def trial(self, index):
        campaign = self.campaign
        tally = Tally(campaign.report, self.name, campaign.seed, index, self.deadline)
        folder = campaign.folder / f"{self.name}-{index}"
        desk = Desk(campaign.tools, folder)
        before = len(campaign.report.damages)
        try:
            self.module.trial(desk, random.Random(f"{campaign.seed}/{self.name}/{index}"), tally)
        except Interrupted:
            pass
        except Damage as damage:
            tally.damage(tally.label, str(damage))
        except Exception:  # a fault of the campaign itself: what it would go on to say is worth nothing
            traceback.print_exc()
            tally.damage(tally.label, "the campaign itself failed, as said above")
            STOP.set()
        desk.kill()
        own = [damage for damage in campaign.report.damages[before:] if damage[:2] == (self.name, index)]
        with self.lock:
            self.kept += bool(own)
            keeps = own and self.kept <= MAX_KEPT
        if keeps:
            (folder / "damage.txt").write_text("\n".join(text for _, _, text in own) + "\n", encoding="utf-8")
        else:
            shutil.rmtree(folder, ignore_errors=True)


class Campaign:
    def __init__(self, arguments):
        self.tools = Tools(Path(arguments.build).absolute())
        self.seed = arguments.seed if arguments.seed is not None else int.from_bytes(os.urandom(3), "big")
        self.folder = Path(tempfile.mkdtemp(prefix="qixxwatch-torture-"))
        self.folder.chmod(0o755)
        self.report = Report()
        self.arguments = arguments

    def run(self):
        seconds = self.arguments.minutes * 60
        end = time.monotonic() + seconds
        names = [self.arguments.only] if self.arguments.only else list(KINDS)
        behind = [Kind(self, name, end) for name in names if KINDS[name].WEIGHT is None]
        for kind in behind:
            kind.run(self.arguments.trial)
        turns = [name for name in names if KINDS[name].WEIGHT is not None]
        weights = sum(KINDS[name].WEIGHT for name in turns)
        for name in turns:
            share = (end - time.monotonic()) * KINDS[name].WEIGHT / weights
            weights -= KINDS[name].WEIGHT
            print(f"{name}: {max(share, 0):.0f} s", flush=True)
            kind = Kind(self, name, time.monotonic() + share)
            kind.run(self.arguments.trial)
            kind.join()
        for kind in behind:
            kind.join()

    def conclude(self):
        report = self.report
        report.show()
        build = "sanitizer build" if self.tools.sanitized else "optimised build"
        print(f"Seed {self.seed}, {build}, {'as root' if os.getuid() == 0 else 'not as root'}.")
        if not report.is_damaged():
            shutil.rmtree(self.folder, ignore_errors=True)
            print("Stopped before its end." if STOP.is_set() else "No damage.")
            return 1 if STOP.is_set() else 0
        print(f"\nDAMAGE ({len(report.damages)} times), kept in {self.folder}:")
        told = {}
        for kind, index, text in report.damages:
            told.setdefault((kind, re.sub(r" \(.*", "", text)), []).append((index, text))
        for (kind, _), cases in told.items():
            print_wrapped(f"- {kind} {cases[0][1]}" + (f" - {len(cases)} times" if len(cases) > 1 else ""))
            print(f"    scripts/torture{' --asan' if self.tools.sanitized else ''} --only {kind} "
                  f"--seed {self.seed} --trial {cases[0][0]}")
        return 1


def main():
    parser = argparse.ArgumentParser(prog="torture")
    parser.add_argument("build")
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--trial", type=int)
    arguments = parser.parse_args()
    if arguments.trial is not None and not arguments.only:
        parser.error("--trial needs --only")
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: STOP.set())
    campaign = Campaign(arguments)
    try:
        campaign.run()
    finally:
        STOP.set() if sys.exc_info()[0] else None
        CHILDREN.kill_all()
    sys.exit(campaign.conclude())


main()
