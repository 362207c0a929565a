"""A service of root's whose target lies in a folder of somebody else's, who lays links and pipes there."""

import os
import threading

import certificate
from desk import pause, require

LANES = 6
WEIGHT = 6
STRANGER = 62000
SECRET = b"[Secret]\nUsername=root only\nKey=4711 %USERNAME%\n"
TARGET = b"[Mail]\nUsername=\nGreeting=%USERNAME%\n"
OLD = b"what the stranger had in the place of the output\n"
SCENES = [(place, what) for place, every in (
    ("saved copy", ("is a link", "leads nowhere", "is a second name", "is a pipe")),
    ("target", ("is a link", "is a second name", "is a pipe")), ("folder", ("is a link", "is changed meanwhile")),
    ("trace", ("is a link", "is a strangers file", "is a second name")),
    ("output", ("is a link", "leads nowhere", "is a second name", "is a pipe", "has two names")),
    ("all", ("is honest",))) for what in every]


class Scene:
    def __init__(self, desk, place, what):
        self.desk, self.what = desk, what
        self.vault, self.folder = desk.path("vault"), desk.path("stranger")
        for folder in (self.vault, self.folder):
            folder.mkdir(mode=0o755)
        self.secret = desk.write("vault/a.conf", SECRET, 0o600)  # root's, where the stranger can do nothing
        self.own(self.folder)
        self.target, self.output = self.write("a.conf", TARGET), self.write("output", OLD)
        if place == "trace":
            desk.trace_file = self.write("trace.log", b"")
        if place == "folder":
            self.target = self.output = self.folder / "sub" / "a.conf"
        self.place = {"saved copy": self.folder / "a.conf.org", "target": self.target, "output": self.output,
                      "trace": desk.trace_file, "folder": self.folder / "sub"}.get(place)
        self.goal = self.vault if place == "folder" else self.secret

    @staticmethod
    def own(path):
        os.chown(path, STRANGER, STRANGER, follow_symlinks=False)

    def write(self, name, content):
        """A file of the stranger's."""
        file = self.desk.write(f"stranger/{name}", content, 0o666)
        self.own(file)
        return file

    def link(self, to):
        """A link of the stranger's, instead of what was in the place."""
        made = self.folder / "made"
        made.symlink_to(to)
        self.own(made)
        made.rename(self.place)

    def lay(self):
        """What the stranger lays in the place."""
        if self.what in ("is a link", "is changed meanwhile"):
            self.link(self.goal)
        elif self.what == "leads nowhere":
            self.link(self.vault / "planted")
        elif self.what == "has two names":
            (self.folder / "other").hardlink_to(self.place)
        elif self.what in ("is a second name", "is a pipe"):
            self.place.unlink(missing_ok=True)
            if self.what == "is a pipe":
                os.mkfifo(self.place)
                self.own(self.place)
            else:
                self.place.hardlink_to(self.secret)

    def change_until(self, over):
        """The folder is now the stranger's own, now a link to root's."""
        while not over.is_set():
            self.link(self.folder)
            self.link(self.goal)

    def go_through(self):
        desk = self.desk
        fill = f"set -config {self.target}"
        say = desk.script("say", f"echo said\n{desk.note('ran')}")
        # The note comes first and last: what is refused must not keep the rest from running.
        desk.configure("-sync config Watch", [desk.note("in"), fill],
                       [fill, f"{say} > {self.output}", f"{say} >> {self.output}", desk.note("out")])
        desk.insert(certificate.ann())
        desk.start()
        for word, count in (("in", 1), ("ran", 2), ("out", 1)):
            require(desk.noted(word, count), f"the service hangs before a command that notes '{word}'")
            if word == "in":
                pause(0.4)
                desk.remove()
        desk.stop()

    def check(self):
        require(self.secret.read_bytes() == SECRET, "a file of root's was changed")
        require(self.secret.stat().st_uid == 0 and self.secret.stat().st_mode & 0o777 == 0o600,
                "owner or mode of a file of root's was changed")
        require(list(self.vault.iterdir()) == [self.secret], "a file was made in a folder of root's")
        for file in self.folder.rglob("*"):
            is_own = file.is_file() and not file.is_symlink() and not file.samefile(self.secret)
            require(not is_own or b"4711" not in file.read_bytes(),
                    "what only root may read was copied into the stranger's folder")
        if self.what == "is a strangers file" and self.place.stat().st_uid == STRANGER:
            require(not self.place.stat().st_size, "the trace was written into a stranger's file")
        if self.what == "has two names":
            require(self.output.read_bytes() == OLD, "a file that could be anywhere was written")
        if self.what == "is honest":  # nothing is refused that need not be, and the files stay their owner's
            text, owners = self.target.read_bytes(), {self.target.stat().st_uid, self.output.stat().st_uid}
            require(b"Greeting=ann" in text and b"Username=\n" in text,
                    "an honest file of another user was not filled and cleared")
            require(self.output.read_bytes() == b"said\n", "the output is not in an honest file of another user")
            require(owners == {STRANGER}, "a file has not stayed its owner's")


def trial(desk, _, tally):
    if os.getuid() != 0:
        return tally.skip("folders of other users", "only as root")
    place, what = SCENES[tally.index % len(SCENES)]
    tally.tried(f"{place} {what}")
    scene = Scene(desk, place, what)
    scene.lay()
    over = threading.Event()
    changing = threading.Thread(target=scene.change_until, args=[over])
    if what == "is changed meanwhile":
        changing.start()
    try:
        scene.go_through()
    finally:
        over.set()
        if changing.ident:
            changing.join()
    scene.check()
