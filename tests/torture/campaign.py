"""The campaign: shares the time out among the kinds, runs their trials, prints what came of them."""

import argparse
import collections
import contextlib
import ctypes
import importlib
import itertools
import os
import random
import shutil
import signal
import sys
import tempfile
import threading
import time
import traceback
from pathlib import Path

from desk import STOP, Damage, Desk, Interrupted, Tools, children_of, pause

KINDS = {name: importlib.import_module(name) for name in (
    "soak", "library", "kills", "certificates", "configurations", "limits", "strangers")}
PR_SET_CHILD_SUBREAPER = 36
SIGNALS = signal.SIGINT, signal.SIGTERM, signal.SIGHUP


class Tally:
    """What a trial tells of itself, and what all of them have told."""

    lock = threading.Lock()
    times, damaged = collections.Counter(), collections.Counter()  # by (kind, label)
    skipped, damages = {}, []

    def __init__(self, plan, kind, index, deadline):
        self.plan, self.kind, self.index, self.deadline = plan, kind, index, deadline
        self.label, self.texts = "setting up", []

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
        self.texts.append(f"{label}: {text}")
        self.damages.append(f"{self.kind} {label}: {text}\n    scripts/torture{' --asan' * self.plan.tools.sanitized} "
                            f"--only {self.kind} --seed {self.plan.seed} --trial {self.index}")

    def skip(self, label, why):
        self.skipped[self.kind, label] = why
        pause(0.05)

    def is_over(self):
        return STOP.is_set() or time.monotonic() > self.deadline

    @classmethod
    def show(cls):
        print(f"\n{'kind':15}{'what was tried':39}{'times':>13}{'damaged':>13}")
        # A label in parentheses adds something to the others of its kind.
        for kind, label in sorted(cls.times | cls.damaged, key=lambda row: (list(KINDS).index(row[0]), row[1][0] == "(",
                                                                            row[1])):
            print(f"{kind:15}{label[:38]:39}{cls.times[kind, label]:>13,}{cls.damaged[kind, label]:>13,}")
        for (kind, label), why in cls.skipped.items():
            print(f"{kind:15}{label[:38]:39}  skipped: {why}")


def run_trial(plan, name, index, deadline):
    tally = Tally(plan, name, index, deadline)
    desk = Desk(plan.tools, plan.folder / f"{name}-{index}")
    try:
        KINDS[name].trial(desk, random.Random(f"{plan.seed}/{name}/{index}"), tally)
    except Interrupted:
        pass
    except Damage as damage:
        tally.damage(tally.label, str(damage))
    except Exception:  # a fault of the campaign itself: what it would go on to say is worth nothing
        traceback.print_exc()
        tally.damage(tally.label, "the campaign itself failed, as said above")
        STOP.set()
    desk.kill()
    if tally.texts:
        desk.write("damage.txt", "\n".join(tally.texts) + "\n")
    else:
        shutil.rmtree(desk.folder, ignore_errors=True)


def start_kind(plan, name, deadline):
    """Runs the trials of one kind until its time is over, on threads, which are returned."""
    indexes = itertools.count() if plan.trial is None else iter([plan.trial])

    def lane():
        while not STOP.is_set() and time.monotonic() < deadline and (index := next(indexes, None)) is not None:
            run_trial(plan, name, index, deadline)
    threads = [threading.Thread(target=lane) for _ in range(KINDS[name].LANES)]
    for thread in threads:
        thread.start()
    return threads


def run(plan):
    end = time.monotonic() + plan.minutes * 60
    weights = {name: kind.WEIGHT for name, kind in KINDS.items() if plan.only in (None, name)}
    behind = [start_kind(plan, name, end) for name, weight in weights.items() if weight is None]
    turns = [name for name, weight in weights.items() if weight is not None]
    for place, name in enumerate(turns):
        share = (end - time.monotonic()) * weights[name] / sum(weights[later] for later in turns[place:])
        print(f"{name}: {max(share, 0):.0f} s", flush=True)
        for thread in start_kind(plan, name, time.monotonic() + share):
            thread.join()
    for thread in itertools.chain(*behind):
        thread.join()


def conclude(plan):
    """Prints the report; the exit code."""
    Tally.show()
    print(f"Seed {plan.seed}, {'sanitizer' if plan.tools.sanitized else 'optimised'} build, "
          f"{'as root' if os.getuid() == 0 else 'not as root'}.")
    if Tally.damages:
        print(f"\nDAMAGE ({len(Tally.damages)} times), kept in {plan.folder}:", *Tally.damages, sep="\n")
        return 1
    shutil.rmtree(plan.folder, ignore_errors=True)
    print("Stopped before its end." if STOP.is_set() else "No damage.")
    return int(STOP.is_set())


def supervise(work):
    """Runs `work` in a process of its own; reaps what becomes an orphan below it, and kills what it leaves over."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    if (worker := os.fork()) == 0:
        for number in SIGNALS:
            signal.signal(number, lambda *_: STOP.set())
        sys.exit(work())
    for number in SIGNALS:
        signal.signal(number, lambda number, _: os.kill(worker, number))
    code = None
    with contextlib.suppress(ChildProcessError):
        while True:
            for orphan in children_of(os.getpid()) if code is not None else ():
                os.kill(orphan, signal.SIGKILL)
            process, status = os.wait()
            if process == worker:
                code = os.waitstatus_to_exitcode(status)
    sys.exit(code)


def main():
    parser = argparse.ArgumentParser(prog="torture")
    parser.add_argument("tools", metavar="build", type=Tools)
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 24))
    parser.add_argument("--trial", type=int)
    plan = parser.parse_intermixed_args()
    plan.folder = Path(tempfile.mkdtemp(prefix="qixxwatch-torture-"))
    plan.folder.chmod(0o755)

    def work():
        run(plan)
        return conclude(plan)
    supervise(work)


main()
