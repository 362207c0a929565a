"""SIGTERM and SIGKILL at any moment of a set command, with a reader looking on."""

import collections
import contextlib
import signal
import threading
import time

import certificate
from desk import read, require

LANES = 2
WEIGHT = 20
ROUNDS = 40
LABELS = ("first insertion", "restoring insertion", "removal", "restoring removal", "keyword form")


def make_target(random):
    """A configuration with keys and placeholders, from some 100 bytes to some 60 KiB."""
    lines = ["[Mail]", "Username=", "Domain=", "Greeting=Hello %USERNAME% of %DOMAIN%, %SUBJECT%", "[More]",
             "Number=%SERIALNUMBER%", "username=old", "Organisation=%OID.O%"]
    for number in range(random.choice((0, 0, 10, 200, 1000))):
        lines.insert(random.randrange(1, len(lines)), f"Entry{number}=" + "x" * random.randrange(90))
    return (random.choice(("\n", "\n", "\r\n")).join(lines) + "\n").encode()


class Scene:
    """One file that one kind of set command changes, from a text before to a text after."""

    def __init__(self, desk, random, tally, label):
        self.desk, self.random, self.tally = desk, random, tally
        self.target, self.saved = desk.path("target/a.conf"), desk.path("target/a.conf.org")
        self.target.parent.mkdir()
        self.restores = label.startswith("restoring")
        command = f"set {'-restore ' if label == 'restoring removal' else ''}-config {self.target}"
        if label == "keyword form":
            desk.configure(f"-c {self.target} -p {desk.note('in')[:-3]} -a in")
        else:
            desk.configure("config Watch", [command], [command])
        if "removal" not in label:
            desk.insert(certificate.ann())
        self.before = self.original = make_target(random)
        self.prepare()
        self.after, self.took = self.run_through()
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
        """The text after one whole set command, and how long that took from the start."""
        self.desk.trace_file.unlink(missing_ok=True)
        begin = time.monotonic()
        self.desk.start()
        require(self.desk.traced("Watch - Set command ... ", step=0.002), "the set command did not come to its end")
        took = time.monotonic() - begin
        self.desk.stop()
        return self.target.read_bytes(), took

    def end_at_a_random_moment(self, sent):
        self.desk.start()
        time.sleep(self.random.uniform(0, 1.1) * self.took)
        self.desk.process.send_signal(sent)
        code = self.desk.wait(20)
        # A SIGTERM may come before the service has set itself up to be ended in order.
        require(sent == signal.SIGKILL or code in (0, -signal.SIGTERM), f"SIGTERM: the service ended with {code}")
        if sent == signal.SIGKILL:
            self.tally.counted("(killed in the middle of a write)" if self.strays() else "(killed at another moment)")
        require(read(self.target) in (self.before, self.after), "the file was left damaged")
        require(read(self.saved, None) in (None, self.original), "the saved copy was left damaged")
        require(self.run_through()[0] == self.after, "the next write went wrong")
        require(not self.strays(), "a stray file stayed behind the next write")

    def strays(self):
        return [entry for entry in self.target.parent.iterdir() if entry not in (self.target, self.saved)]

    @contextlib.contextmanager
    def reader(self):
        """Somebody who looks at the file as often as one can meanwhile."""
        over, looks = threading.Event(), collections.Counter()

        def look():
            while not over.is_set():
                looks[(text := read(self.target)) in (self.before, self.after)] += 1
                if looks[False] == 1:
                    self.desk.write("seen", text)
        looking = threading.Thread(target=look)
        looking.start()
        try:
            yield
        finally:
            over.set()
            looking.join()
            self.tally.counted("looks at the file", looks.total())
            if looks[False]:
                self.tally.damage("looks at the file", "a reader saw a text that is neither old nor new", looks[False])


def trial(desk, random, tally):
    label = random.choice(LABELS)
    scene = Scene(desk, random, tally, label)
    scene.prepare()
    with scene.reader():
        for _ in range(ROUNDS):
            sent = random.choice((signal.SIGTERM, signal.SIGKILL, signal.SIGKILL))
            tally.tried(f"{sent.name}, {label}")
            scene.prepare()
            scene.end_at_a_random_moment(sent)
            if tally.is_over():
                break
