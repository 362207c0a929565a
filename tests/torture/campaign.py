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

from desk import CHILDREN, STOP, Damage, Desk, Interrupted, pause

KINDS = {name: importlib.import_module(name) for name in (
    "soak", "library", "kills", "certificates", "configurations", "limits", "strangers")}
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
        self.sanitized = re.search(rb"\nQIXX_SANITIZE:\w+=.", (build / "CMakeCache.txt").read_bytes()) is not None


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
            labels = {label for kind, label in [*cls.times, *cls.damaged] if kind == name}
            # A label in parentheses adds something to the others of its kind.
            for number, label in enumerate(sorted(labels, key=lambda label: (label.startswith("("), label))):
                row = name, label
                print(f"{'' if number else name:15}{label[:38]:39}{cls.times[row]:>13,}{cls.damaged[row]:>13,}")
        for (kind, label), why in cls.skipped.items():
            print(f"{kind:15}{label[:38]:39}  skipped: {why}")
        print("-" * WIDTH)
        for remark in cls.remarks:
            print_wrapped(remark)


def print_wrapped(text):
    print(textwrap.fill(text, WIDTH, subsequent_indent="    ", break_long_words=False, break_on_hyphens=False))


class Kind:
    """Runs the trials of one kind on some lanes until its time is over."""

    def __init__(self, campaign, name, deadline):
        self.campaign, self.name, self.module, self.deadline = campaign, name, KINDS[name], deadline
        only = campaign.arguments.trial
        self.indexes = itertools.count() if only is None else iter([only])
        self.threads = [threading.Thread(target=self.lane) for _ in range(self.module.LANES)]
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
        campaign, damages = self.campaign, Tally.damages
        tally = Tally(self.name, campaign.seed, index, self.deadline)
        desk = Desk(campaign.tools, campaign.folder / f"{self.name}-{index}")
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
        damaged = {number for kind, number, _ in damages if kind == self.name}
        if index in damaged and len(damaged) <= MAX_KEPT:
            texts = [text for kind, number, text in damages if (kind, number) == (self.name, index)]
            desk.path("damage.txt").write_text("\n".join(texts) + "\n", encoding="utf-8")
        else:
            shutil.rmtree(desk.folder, ignore_errors=True)


class Campaign:
    def __init__(self, arguments):
        self.tools = Tools(Path(arguments.build).absolute())
        self.seed = arguments.seed
        self.folder = Path(tempfile.mkdtemp(prefix="qixxwatch-torture-"))
        self.folder.chmod(0o755)
        self.arguments = arguments

    def run(self):
        end = time.monotonic() + self.arguments.minutes * 60
        names = [self.arguments.only] if self.arguments.only else KINDS
        weights = {name: KINDS[name].WEIGHT for name in names}
        behind = [Kind(self, name, end) for name in names if weights[name] is None]
        turns = [name for name in names if weights[name] is not None]
        for place, name in enumerate(turns):
            left = sum(weights[later] for later in turns[place:])
            share = (end - time.monotonic()) * weights[name] / left
            print(f"{name}: {max(share, 0):.0f} s", flush=True)
            Kind(self, name, time.monotonic() + share).join()
        for kind in behind:
            kind.join()

    def conclude(self):
        sanitized = self.tools.sanitized
        Tally.show()
        print(f"Seed {self.seed}, {'sanitizer' if sanitized else 'optimised'} build, "
              f"{'as root' if os.getuid() == 0 else 'not as root'}.")
        if not Tally.damages:
            shutil.rmtree(self.folder, ignore_errors=True)
            print("Stopped before its end." if STOP.is_set() else "No damage.")
            return int(STOP.is_set())
        print(f"\nDAMAGE ({len(Tally.damages)} times), kept in {self.folder}:")
        told = collections.defaultdict(list)
        for kind, index, text in Tally.damages:
            told[kind, re.sub(r" \(.*", "", text)].append((index, text))
        for (kind, _), cases in told.items():
            index, text = cases[0]
            print_wrapped(f"- {kind} {text}" + (f" - {len(cases)} times" if len(cases) > 1 else ""))
            print(f"    scripts/torture{' --asan' * sanitized} --only {kind} --seed {self.seed} --trial {index}")
        return 1


def main():
    parser = argparse.ArgumentParser(prog="torture")
    parser.add_argument("build")
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 24))
    parser.add_argument("--trial", type=int)
    arguments = parser.parse_intermixed_args()
    if arguments.trial is not None and not arguments.only:
        parser.error("--trial needs --only")
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: STOP.set())
    campaign = Campaign(arguments)
    try:
        campaign.run()
    except BaseException:
        STOP.set()
        raise
    finally:
        CHILDREN.kill_all()
    sys.exit(campaign.conclude())


main()
