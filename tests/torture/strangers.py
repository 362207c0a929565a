"""A service of root's whose target lies in a folder of somebody else's, who lays links and pipes there."""

import os
import threading

import certificate
from desk import Damage, eventually, pause

LANES = 4
WEIGHT = 6
STRANGER = 62000
SECRET = b"[Secret]\nUsername=root only\nKey=4711 %USERNAME%\n"
TARGET = b"[Mail]\nUsername=\nGreeting=%USERNAME%\n"


class Scene:
    def __init__(self, desk):
        self.desk = desk
        self.vault = desk.path("vault")  # root's, where the stranger can do nothing
        self.vault.mkdir()
        self.vault.chmod(0o755)
        self.secret = self.vault / "a.conf"
        self.secret.write_bytes(SECRET)
        self.secret.chmod(0o600)
        self.folder = desk.path("stranger")
        self.folder.mkdir()
        self.target = self.folder / "a.conf"
        self.saved = self.folder / "a.conf.org"
        self.target.write_bytes(TARGET)
        self.set = str(self.target)
        self.own(self.target)
        self.own(self.folder)

    @staticmethod
    def own(path):
        os.chown(path, STRANGER, STRANGER, follow_symlinks=False)

    def link(self, place, to):
        """A link of the stranger's."""
        place.unlink(missing_ok=True)
        place.symlink_to(to)
        self.own(place)

    def watch_in_trace_of(self, file):
        self.desk.trace_file = file

    def go_through(self):
        desk = self.desk
        # The note comes first and last: what is refused must not keep the rest from running.
        desk.configure("-sync config Watch", [desk.note("in"), f"set -config {self.set}"],
                       [f"set -config {self.set}", desk.note("out")])
        desk.insert(certificates=[certificate.ann()])
        desk.start()
        self.await_note("in")
        pause(0.4)
        desk.remove()
        self.await_note("out")
        desk.stop()

    def await_note(self, word):
        def noted():
            self.desk.check_alive()
            return word in self.desk.notes()
        if not eventually(noted, 20):
            raise Damage(f"the service hangs before its command '{word}'")

    def check(self):
        if self.secret.read_bytes() != SECRET:
            raise Damage("a file of root's was changed")
        if self.secret.stat().st_uid != 0 or self.secret.stat().st_mode & 0o777 != 0o600:
            raise Damage("owner or mode of a file of root's was changed")
        if sorted(entry.name for entry in self.vault.iterdir()) != ["a.conf"]:
            raise Damage("a file was made in a folder of root's")
        for folder, _, names in os.walk(self.folder):
            for name in names:
                file = os.path.join(folder, name)
                is_secret = os.stat(file, follow_symlinks=False).st_ino == self.secret.stat().st_ino
                if os.path.isfile(file) and not os.path.islink(file) and not is_secret:
                    with open(file, "rb") as opened:
                        if b"4711" in opened.read():
                            raise Damage("what only root may read was copied into the stranger's folder")


def saved_copy_is_a_link(scene):
    scene.link(scene.saved, scene.secret)
    scene.go_through()


def saved_copy_leads_nowhere(scene):
    scene.link(scene.saved, scene.vault / "planted")
    scene.go_through()


def saved_copy_is_a_second_name(scene):
    os.link(scene.secret, scene.saved)
    scene.go_through()


def saved_copy_is_a_pipe(scene):
    os.mkfifo(scene.saved)
    scene.own(scene.saved)
    scene.go_through()


def target_is_a_link(scene):
    scene.link(scene.target, scene.secret)
    scene.go_through()


def target_is_a_second_name(scene):
    scene.target.unlink()
    os.link(scene.secret, scene.target)
    scene.go_through()


def target_is_a_pipe(scene):
    scene.target.unlink()
    os.mkfifo(scene.target)
    scene.own(scene.target)
    scene.go_through()


def folder_is_a_link(scene):
    scene.link(scene.folder / "sub", scene.vault)
    scene.set = str(scene.folder / "sub" / "a.conf")
    scene.go_through()


def folder_is_changed_meanwhile(scene):
    """The folder is now the stranger's own, now a link to root's."""
    real, shown = scene.folder / "real", scene.folder / "sub"
    real.mkdir()
    scene.own(real)
    (real / "a.conf").write_bytes(TARGET)
    scene.own(real / "a.conf")
    scene.set = str(shown / "a.conf")
    over = threading.Event()

    def change():
        number = 0
        while not over.is_set():
            number += 1
            made = scene.folder / "made"
            made.symlink_to(real if number % 2 else scene.vault)
            scene.own(made)
            made.rename(shown)
    changing = threading.Thread(target=change)
    changing.start()
    try:
        scene.go_through()
    finally:
        over.set()
        changing.join()


def trace_is_a_link(scene):
    log = scene.folder / "trace.log"
    scene.link(log, scene.secret)
    scene.watch_in_trace_of(log)
    scene.go_through()


def trace_is_a_strangers_file(scene):
    log = scene.folder / "trace.log"
    log.write_bytes(b"")
    log.chmod(0o666)
    scene.own(log)
    scene.watch_in_trace_of(log)
    scene.go_through()
    if log.exists() and log.stat().st_uid == STRANGER and log.stat().st_size:
        raise Damage("the trace was written into a stranger's file")


def trace_is_a_second_name(scene):
    log = scene.folder / "trace.log"
    os.link(scene.secret, log)
    scene.watch_in_trace_of(log)
    scene.go_through()


def all_is_honest(scene):
    """Nothing is refused that need not be, and the file stays its owner's."""
    scene.go_through()
    text = scene.target.read_bytes()
    if b"Greeting=ann" not in text or b"Username=\n" not in text:
        raise Damage("an honest file of another user was not filled and cleared")
    if scene.target.stat().st_uid != STRANGER:
        raise Damage("the file has not stayed its owner's")


SCENES = (saved_copy_is_a_link, saved_copy_leads_nowhere, saved_copy_is_a_second_name, saved_copy_is_a_pipe,
          target_is_a_link, target_is_a_second_name, target_is_a_pipe, folder_is_a_link, folder_is_changed_meanwhile,
          trace_is_a_link, trace_is_a_strangers_file, trace_is_a_second_name, all_is_honest)


def trial(desk, _, tally):
    if os.getuid() != 0:
        tally.skip("folders of other users", "only as root")
        pause(0.05)
        return
    play = SCENES[tally.index % len(SCENES)]
    tally.tried(play.__name__.replace("_", " "))
    scene = Scene(desk)
    play(scene)
    scene.check()
