"""A service of root's whose target lies in a folder of somebody else's, who lays links and pipes there."""

import contextlib
import os
import threading

import certificate
from desk import Damage, pause, require

LANES = 6
WEIGHT = 6
STRANGER = 62000
SECRET = b"[Secret]\nUsername=root only\nKey=4711 %USERNAME%\n"
TARGET = b"[Mail]\nUsername=\nGreeting=%USERNAME%\n"
OLD = b"what the stranger had in the place of the output\n"


class Scene:
    def __init__(self, desk, place):
        self.desk = desk
        self.vault = desk.path("vault")  # root's, where the stranger can do nothing
        self.vault.mkdir()
        self.vault.chmod(0o755)
        self.secret = self.vault / "a.conf"
        self.secret.write_bytes(SECRET)
        self.secret.chmod(0o600)
        self.folder = desk.path("stranger")
        self.folder.mkdir()
        self.own(self.folder)
        self.target = self.write("a.conf", TARGET)
        self.output = self.write("output", OLD)
        if place == "trace":
            desk.trace_file = self.write("trace.log", b"")
        self.place = {"saved copy": self.folder / "a.conf.org", "target": self.target, "output": self.output,
                      "trace": desk.trace_file}.get(place)
        self.afterwards = contextlib.ExitStack()

    @staticmethod
    def own(path):
        os.chown(path, STRANGER, STRANGER, follow_symlinks=False)

    def write(self, name, content):
        """A file of the stranger's."""
        file = self.folder / name
        file.write_bytes(content)
        file.chmod(0o666)
        self.own(file)
        return file

    def link(self, place, to):
        """A link of the stranger's, instead of what was there."""
        made = self.folder / "made"
        made.symlink_to(to)
        self.own(made)
        made.rename(place)

    def go_through(self):
        desk = self.desk
        fill = f"set -config {self.target}"
        say = desk.script("say", f"echo said\n{desk.note('ran')}")
        # The note comes first and last: what is refused must not keep the rest from running.
        desk.configure("-sync config Watch", [desk.note("in"), fill],
                       [fill, f"{say} > {self.output}", f"{say} >> {self.output}", desk.note("out")])
        desk.insert(certificate.ann())
        desk.start()
        self.await_notes("in")
        pause(0.4)
        desk.remove()
        self.await_notes("ran", 2)
        self.await_notes("out")
        desk.stop()

    def await_notes(self, word, count=1):
        require(self.desk.noted(word, count), f"the service hangs before a command that notes '{word}'")

    def check(self):
        require(self.secret.read_bytes() == SECRET, "a file of root's was changed")
        require(self.secret.stat().st_uid == 0 and self.secret.stat().st_mode & 0o777 == 0o600,
                "owner or mode of a file of root's was changed")
        require(list(self.vault.iterdir()) == [self.secret], "a file was made in a folder of root's")
        for file in self.folder.rglob("*"):
            if file.is_file() and not file.is_symlink() and not file.samefile(self.secret) \
                    and b"4711" in file.read_bytes():
                raise Damage("what only root may read was copied into the stranger's folder")


# --- what the stranger lays in the place ----------------------------------------------------------

def link(scene):
    scene.link(scene.place, scene.secret)


def link_to_nowhere(scene):
    scene.link(scene.place, scene.vault / "planted")


def second_name(scene):
    scene.place.unlink(missing_ok=True)
    scene.place.hardlink_to(scene.secret)


def pipe(scene):
    scene.place.unlink(missing_ok=True)
    os.mkfifo(scene.place)
    scene.own(scene.place)


def two_names(scene):
    (scene.folder / "other").hardlink_to(scene.place)


def nothing(_):
    pass


def folder_link(scene):
    shown = scene.folder / "sub"
    scene.link(shown, scene.vault)
    scene.target = scene.output = shown / "a.conf"


def changing_folder(scene):
    """The folder is now the stranger's own, now a link to root's."""
    folder_link(scene)
    real, shown = scene.folder / "real", scene.folder / "sub"
    real.mkdir()
    scene.own(real)
    scene.write("real/a.conf", TARGET)
    over = threading.Event()

    def change():
        while not over.is_set():
            scene.link(shown, real)
            scene.link(shown, scene.vault)
    changing = threading.Thread(target=change)
    changing.start()
    scene.afterwards.callback(changing.join)
    scene.afterwards.callback(over.set)


# --- what must have come of it besides ------------------------------------------------------------

def check_trace(scene):
    if scene.place.exists() and scene.place.stat().st_uid == STRANGER and scene.place.stat().st_size:
        raise Damage("the trace was written into a stranger's file")


def check_output(scene):
    require(scene.output.read_bytes() == OLD, "a file that could be anywhere was written")


def check_all(scene):
    """Nothing is refused that need not be, and the files stay their owner's."""
    text = scene.target.read_bytes()
    require(b"Greeting=ann" in text and b"Username=\n" in text,
            "an honest file of another user was not filled and cleared")
    require(scene.output.read_bytes() == b"said\n", "the output is not in an honest file of another user")
    require({scene.target.stat().st_uid, scene.output.stat().st_uid} == {STRANGER}, "a file has not stayed its owner's")


SCENES = (("saved copy", "is a link", link), ("saved copy", "leads nowhere", link_to_nowhere),
          ("saved copy", "is a second name", second_name), ("saved copy", "is a pipe", pipe),
          ("target", "is a link", link), ("target", "is a second name", second_name), ("target", "is a pipe", pipe),
          ("folder", "is a link", folder_link), ("folder", "is changed meanwhile", changing_folder),
          ("trace", "is a link", link), ("trace", "is a strangers file", nothing, check_trace),
          ("trace", "is a second name", second_name),
          ("output", "is a link", link), ("output", "leads nowhere", link_to_nowhere),
          ("output", "is a second name", second_name), ("output", "is a pipe", pipe),
          ("output", "has two names", two_names, check_output), ("all", "is honest", nothing, check_all))


def trial(desk, _, tally):
    if os.getuid() != 0:
        tally.skip("folders of other users", "only as root")
        return
    place, what, lay, *checks = SCENES[tally.index % len(SCENES)]
    tally.tried(f"{place} {what}")
    scene = Scene(desk, place)
    with scene.afterwards:
        lay(scene)
        scene.go_through()
    for check in (Scene.check, *checks):
        check(scene)
