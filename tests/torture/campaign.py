"""The campaign: shares the time out among the kinds, runs their trials, prints what came of them."""

import argparse
import collections
import ctypes
import importlib
import itertools
import os
import random
import re
import shutil
import signal
import sys
import tempfile
import textwrap
import threading
import time
import traceback
from pathlib import Path

from desk import CHILDREN, STOP, Damage, Desk, Interrupted, Tools, pause

KINDS = {name: importlib.import_module(name) for name in (
    "soak", "library", "kills", "certificates", "configurations", "limits", "strangers")}
PR_SET_CHILD_SUBREAPER = 36
WIDTH = 80
MAX_KEPT = 12  # folders of evidence, of each kind


class Tally:
    """What a trial tells of itself, and what all of them have told."""

    lock = threading.Lock()
    times, damaged = collections.Counter(), collections.Counter()  # by (kind, label)
    skipped, remarks = {}, []
    damages = []  # (kind, trial, text)

    def __init__(self, kind, seed, index, deadline):
        self.kind, self.seed, self.index, self.deadline = kind, seed, index, deadline
        self.label = "setting up"

    def tried(self, label):
        """What is being tried from now on: damage that ends the trial counts for it."""
        self.label = label
        self.counted(label)

    def counted(self, label, times=1):
        with self.lock:
            self.times[self.kind, label] += times

    def damage(self, label, text, times=1):
        """Damage that does not end the trial."""
        with self.lock:
            self.damaged[self.kind, label] += times
        self.damages.append((self.kind, self.index, f"{label}: {text}"))

    def skip(self, label, why):
        self.skipped[self.kind, label] = why
        pause(0.05)

    def remark(self, text):
        self.remarks.append(f"{self.kind}: {text}")

    def is_over(self):
        return STOP.is_set() or time.monotonic() > self.deadline

    @classmethod
    def show(cls):
        print(f"\n{'kind':15}{'what was tried':39}{'times':>13}{'damaged':>13}\n" + "-" * WIDTH)
        for name in KINDS:
            # A label in parentheses adds something to the others of its kind.
            labels = sorted({label for kind, label in cls.times | cls.damaged if kind == name},
                            key=lambda label: (label.startswith("("), label))
            for label in labels:
                row = name, label
                print(f"{name if label == labels[0] else '':15}{label[:38]:39}"
                      f"{cls.times[row]:>13,}{cls.damaged[row]:>13,}")
        for (kind, label), why in cls.skipped.items():
            print(f"{kind:15}{label[:38]:39}  skipped: {why}")
        print("-" * WIDTH)
        for remark in cls.remarks:
            print_wrapped(remark)


def print_wrapped(text):
    print(textwrap.fill(text, WIDTH, subsequent_indent="    ", break_long_words=False, break_on_hyphens=False))


class Kind:
    """Runs the trials of one kind on some lanes until its time is over. `plan` are the campaign's arguments."""

    def __init__(self, plan, name, deadline):
        self.plan, self.name, self.deadline = plan, name, deadline
        self.indexes = itertools.count() if plan.trial is None else iter([plan.trial])
        self.threads = [threading.Thread(target=self.lane) for _ in range(KINDS[name].LANES)]
        for thread in self.threads:
            thread.start()

    def join(self):
        for thread in self.threads:
            while thread.is_alive():
                thread.join(0.5)
                CHILDREN.reap_orphans()

    def lane(self):
        while not STOP.is_set() and time.monotonic() < self.deadline:
            index = next(self.indexes, None)
            if index is None:
                return
            self.trial(index)

    def trial(self, index):
        tally = Tally(self.name, self.plan.seed, index, self.deadline)
        desk = Desk(self.plan.tools, self.plan.folder / f"{self.name}-{index}")
        try:
            KINDS[self.name].trial(desk, random.Random(f"{self.plan.seed}/{self.name}/{index}"), tally)
        except Interrupted:
            pass
        except Damage as damage:
            tally.damage(tally.label, str(damage))
        except Exception:  # a fault of the campaign itself: what it would go on to say is worth nothing
            traceback.print_exc()
            tally.damage(tally.label, "the campaign itself failed, as said above")
            STOP.set()
        desk.kill()
        damages = [(number, text) for kind, number, text in Tally.damages if kind == self.name]
        texts = [text for number, text in damages if number == index]
        if texts and len({number for number, _ in damages}) <= MAX_KEPT:
            desk.write("damage.txt", "\n".join(texts) + "\n")
        else:
            shutil.rmtree(desk.folder, ignore_errors=True)


def run(plan):
    end = time.monotonic() + plan.minutes * 60
    weights = {name: kind.WEIGHT for name, kind in KINDS.items() if plan.only in (None, name)}
    behind = [Kind(plan, name, end) for name, weight in weights.items() if weight is None]
    turns = [name for name, weight in weights.items() if weight is not None]
    for place, name in enumerate(turns):
        share = (end - time.monotonic()) * weights[name] / sum(weights[later] for later in turns[place:])
        print(f"{name}: {max(share, 0):.0f} s", flush=True)
        Kind(plan, name, time.monotonic() + share).join()
    for kind in behind:
        kind.join()


def conclude(plan):
    """Prints the report; the exit code."""
    Tally.show()
    print(f"Seed {plan.seed}, {'sanitizer' if plan.tools.sanitized else 'optimised'} build, "
          f"{'as root' if os.getuid() == 0 else 'not as root'}.")
    if not Tally.damages:
        shutil.rmtree(plan.folder, ignore_errors=True)
        print("Stopped before its end." if STOP.is_set() else "No damage.")
        return int(STOP.is_set())
    print(f"\nDAMAGE ({len(Tally.damages)} times), kept in {plan.folder}:")
    told = collections.defaultdict(list)
    for kind, index, text in Tally.damages:
        told[kind, re.sub(r" \(.*", "", text)].append((index, text))
    for (kind, _), cases in told.items():
        index, text = cases[0]
        print_wrapped(f"- {kind} {text}" + (f" - {len(cases)} times" if len(cases) > 1 else ""))
        print(f"    scripts/torture{' --asan' * plan.tools.sanitized} --only {kind} --seed {plan.seed} --trial {index}")
    return 1


def main():
    parser = argparse.ArgumentParser(prog="torture")
    parser.add_argument("tools", metavar="build", type=Tools)
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 24))
    parser.add_argument("--trial", type=int)
    plan = parser.parse_intermixed_args()
    if plan.trial is not None and not plan.only:
        parser.error("--trial needs --only")
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: STOP.set())
    plan.folder = Path(tempfile.mkdtemp(prefix="qixxwatch-torture-"))
    plan.folder.chmod(0o755)
    try:
        run(plan)
    except BaseException:
        STOP.set()
        raise
    finally:
        CHILDREN.kill_all()
    sys.exit(conclude(plan))


main()
