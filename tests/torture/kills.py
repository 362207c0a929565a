"""SIGTERM and SIGKILL at any moment of a set command, with a reader looking on."""

import collections
import signal
import threading
import time

import certificate
from desk import read, require

LANES = 2
WEIGHT = 20
ROUNDS = 40
LABELS = ("first insertion", "restoring insertion", "removal", "restoring removal")


def make_target(random):
    """A configuration with keys and placeholders, from some 100 bytes to some 60 KiB."""
    lines = ["[Mail]", "Username=", "Domain=", "Greeting=Hello %USERNAME% of %DOMAIN%, %SUBJECT%", "username=old"]
    for number in range(random.choice((0, 0, 10, 200, 1000))):
        lines.insert(random.randrange(1, len(lines)), f"Entry{number}=" + "x" * random.randrange(90))
    return (random.choice(("\n", "\n", "\r\n")).join(lines) + "\n").encode()


class Scene:
    """One file that one kind of set command changes, from a text before to a text after."""

    def __init__(self, desk, random, label):
        self.desk = desk
        self.target, self.saved = desk.path("target/a.conf"), desk.path("target/a.conf.org")
        self.target.parent.mkdir()
        self.restores = label.startswith("restoring")
        command = f"set {'-restore ' if label == 'restoring removal' else ''}-config {self.target}"
        desk.configure("config Watch", [command], [command])
        if "removal" not in label:
            desk.insert(certificate.ann())
        self.before = self.original = make_target(random)
        self.prepare()
        self.after = self.run_through()
        if self.restores:  # the file holds the values of a card that was here before
            self.before = self.original.replace(b"Username=", b"Username=bob")

    def prepare(self):
        """The text before, the saved copy that belongs to it, and nothing else."""
        for file in (self.saved, *self.strays()):
            file.unlink(missing_ok=True)
        if self.restores:
            self.desk.write("target/a.conf.org", self.original)
        self.desk.write("target/a.conf", self.before)

    def run_through(self):
        """The text after one whole set command."""
        self.desk.trace_file.unlink(missing_ok=True)
        begin = time.monotonic()
        self.desk.start()
        require(self.desk.traced("Watch - Set command ... ", step=0.002), "the set command did not come to its end")
        self.took = time.monotonic() - begin
        self.desk.stop()
        return self.target.read_bytes()

    def end_after(self, seconds, sent, tally):
        self.desk.start()
        time.sleep(seconds)
        self.desk.process.send_signal(sent)
        code = self.desk.wait()
        # A SIGTERM may come before the service has set itself up to be ended in order.
        require(sent == signal.SIGKILL or code in (0, -signal.SIGTERM), f"SIGTERM: the service ended with {code}")
        if sent == signal.SIGKILL:
            tally.counted("(killed in the middle of a write)" if self.strays() else "(killed at another moment)")
        require(read(self.target) in (self.before, self.after), "the file was left damaged")
        require(read(self.saved, None) in (None, self.original), "the saved copy was left damaged")
        require(self.run_through() == self.after, "the next write went wrong")
        require(not self.strays(), "a stray file stayed behind the next write")

    def strays(self):
        return [entry for entry in self.target.parent.iterdir() if entry not in (self.target, self.saved)]


def trial(desk, random, tally):
    label = random.choice(LABELS)
    scene = Scene(desk, random, label)
    scene.prepare()
    over, looks = threading.Event(), collections.Counter()

    def look():
        """Somebody who looks at the file as often as one can meanwhile."""
        while not over.is_set():
            looks[read(scene.target) in (scene.before, scene.after)] += 1
    reader = threading.Thread(target=look)
    reader.start()
    try:
        for _ in range(ROUNDS):
            sent = random.choice((signal.SIGTERM, signal.SIGKILL, signal.SIGKILL))
            tally.tried(f"{sent.name}, {label}")
            scene.prepare()
            scene.end_after(random.uniform(0, 1.1) * scene.took, sent, tally)
            if time.monotonic() > tally.deadline:
                break
    finally:
        over.set()
        reader.join()
        tally.counted("looks at the file", looks.total())
    require(not looks[False], f"a reader saw {looks[False]} times a text that is neither old nor new")
