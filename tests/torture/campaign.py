"""The campaign: shares the time out among the kinds, runs their trials, prints what came of them."""

import argparse
import collections
import contextlib
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
import threading
import time
import traceback
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from desk import Damage, Desk, children_of, read, require

KINDS = {name: importlib.import_module(name) for name in (
    "soak", "library", "kills", "certificates", "configurations", "limits", "strangers")}
PR_SET_CHILD_SUBREAPER = 36
REPORTS = re.compile(rb"ERROR: \w+Sanitizer|runtime error:|WARNING: ThreadSanitizer")


class Tally:
    """What a trial tells of itself, and what all of them have told."""

    lock = threading.Lock()
    times, damaged = collections.Counter(), collections.Counter()  # by (kind, label)
    damages = []

    def __init__(self, plan, kind, index, deadline):
        self.plan, self.kind, self.index, self.deadline = plan, kind, index, deadline
        self.label = "setting up"

    def tried(self, label):
        """What is being tried from now on: damage counts for it."""
        self.label = label
        self.counted(label)

    def counted(self, label, times=1):
        with self.lock:
            self.times[self.kind, label] += times

    def damage(self, text):
        with self.lock:
            self.damaged[self.kind, self.label] += 1
        self.damages.append(f"{self.kind} {self.label}: {text}\n    scripts/torture{' --asan' * self.plan.sanitized} "
                            f"--only {self.kind} --seed {self.plan.seed} --trial {self.index}")

    def skip(self, why):
        self.counted(f"({why})")
        time.sleep(0.05)

    @classmethod
    def show(cls):
        print(f"\n{'kind':15}{'what was tried':39}{'times':>13}{'damaged':>13}")
        # A label in parentheses adds something to the others of its kind.
        for kind, label in sorted(cls.times | cls.damaged, key=lambda row: (list(KINDS).index(row[0]), row[1][0] == "(",
                                                                            row[1])):
            print(f"{kind:15}{label[:38]:39}{cls.times[kind, label]:>13,}{cls.damaged[kind, label]:>13,}")


def run_trial(plan, name, index, deadline):
    tally = Tally(plan, name, index, deadline)
    desk = Desk(plan.build, plan.folder / f"{name}-{index}")
    try:
        KINDS[name].trial(desk, random.Random(f"{plan.seed}/{name}/{index}"), tally)
        require(not REPORTS.search(read(desk.path("stderr.txt"))), "the sanitizer has reported a fault")
        shutil.rmtree(desk.folder, ignore_errors=True)
    except Damage as damage:
        tally.damage(damage)
    except Exception:  # a fault of the campaign itself: what it would go on to say is worth nothing
        traceback.print_exc()
        os._exit(2)
    desk.kill()


def run_kind(plan, name, deadline):
    """Runs the trials of one kind, some at a time, until its time is over."""
    indexes = itertools.count() if plan.trial is None else iter([plan.trial])

    def lane(_):
        while time.monotonic() < deadline and (index := next(indexes, None)) is not None:
            run_trial(plan, name, index, deadline)
    with ThreadPoolExecutor(KINDS[name].LANES) as lanes:
        lanes.map(lane, range(KINDS[name].LANES))


def run(plan):
    end = time.monotonic() + plan.minutes * 60
    weights = {name: kind.WEIGHT for name, kind in KINDS.items() if plan.only in (None, name)}
    with ThreadPoolExecutor() as beside:
        if weights.pop("soak", False):
            beside.submit(run_kind, plan, "soak", end)
        while weights:
            name, share = next(iter(weights)), (end - time.monotonic()) / sum(weights.values())
            run_kind(plan, name, time.monotonic() + share * weights.pop(name))


def conclude(plan):
    """Prints the report; the exit code."""
    Tally.show()
    print(f"Seed {plan.seed}, {'sanitizer' if plan.sanitized else 'optimised'} build, "
          f"{'as root' if os.getuid() == 0 else 'not as root'}.")
    if Tally.damages:
        print(f"\nDAMAGE ({len(Tally.damages)} times), kept in {plan.folder}:", *Tally.damages, sep="\n")
        return 1
    print("No damage.")
    return 0


def supervise(worker):
    """Reaps what becomes an orphan below this process, kills what the worker leaves over; the worker's exit code."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: os.kill(worker, signal.SIGKILL))
    code = None
    with contextlib.suppress(ChildProcessError):
        while True:
            process, status = os.wait()
            if process == worker:
                code = os.waitstatus_to_exitcode(status)
            for orphan in children_of(os.getpid()) if code is not None else ():
                os.kill(orphan, signal.SIGKILL)
    return code


def main():
    parser = argparse.ArgumentParser(prog="torture")
    parser.add_argument("build", type=lambda folder: Path(folder).absolute())
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 24))
    parser.add_argument("--trial", type=int)
    plan = parser.parse_intermixed_args()
    plan.sanitized = plan.build.name.endswith("-asan")
    plan.folder = Path(tempfile.mkdtemp(prefix="qixxwatch-torture-"))
    plan.folder.chmod(0o755)
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    if (worker := os.fork()) == 0:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # which the terminal sends to both
        run(plan)
        sys.exit(conclude(plan))
    if (code := supervise(worker)) != 1:
        shutil.rmtree(plan.folder, ignore_errors=True)
    sys.exit(code)


main()
