"""A service of root's whose target lies in a folder of somebody else's, who lays links and pipes there."""

import os
import subprocess
import time

import certificate
from desk import require

LANES = 6
WEIGHT = 6
STRANGER = 62000
SECRET = b"[Secret]\nUsername=root only\nKey=4711 %USERNAME%\n"
# What the stranger lays in a place, whatever was there; a goal is a file or folder of root's.
LINK, NOWHERE, NAME, PIPE, CHANGED = "is a link", "leads nowhere", "is a second name", "is a pipe", "changes meanwhile"
DEEDS = {LINK: "ln -sfn {goal} {place}", NOWHERE: "ln -sfn {goal}-planted {place}", NAME: "ln -f {goal} {place}",
         PIPE: "rm -f {place}; mkfifo {place}",
         CHANGED: "while :; do ln -sfn {goal} {place}; ln -sfn $(dirname {place}) {place}; done"}
SCENES = [(place, what) for place, every in (
    ("saved copy", (LINK, NOWHERE, NAME, PIPE)), ("target", (LINK, NAME, PIPE)), ("folder", (LINK, CHANGED)),
    ("trace", (LINK, NAME)), ("output", (LINK, NOWHERE, NAME, PIPE))) for what in every]


def set_up(desk, place, vault, folder):
    """The files, the stranger's and root's; the paths of the target, of the output and of the place."""
    for made in (vault, folder):
        made.mkdir(mode=0o755)
    desk.write("vault/a.conf", SECRET, 0o600)
    target, output = (desk.write(f"stranger/{name}", "[Mail]\nUsername=\nGreeting=%USERNAME%\n", 0o666)
                      for name in ("a.conf", "output"))
    for path in (folder, target, output):
        os.chown(path, STRANGER, STRANGER)
    if place == "trace":
        desk.trace_file = folder / "trace.log"
    if place == "folder":
        target = output = folder / "sub" / "a.conf"
    return target, output, {"saved copy": folder / "a.conf.org", "target": target, "output": output,
                            "trace": desk.trace_file, "folder": folder / "sub"}[place]


def go_through(desk, target, output):
    fill = f"set -config {target}"
    say = desk.script("say", f"echo said\n{desk.note('ran')}")
    # The note comes first and last: what is refused must not keep the rest from running.
    desk.configure("-sync config Watch", [desk.note("in"), fill],
                   [fill, f"{say} > {output}", f"{say} >> {output}", desk.note("out")])
    desk.insert(certificate.ann())
    desk.start()
    for word, count in (("in", 1), ("ran", 2), ("out", 1)):
        require(desk.noted(word, count), f"the service hangs before a command that notes '{word}'")
        if word == "in":
            time.sleep(0.4)
            desk.remove()
    desk.stop()


def check(vault, folder):
    secret = vault / "a.conf"
    require(secret.read_bytes() == SECRET, "a file of root's was changed")
    require((secret.stat().st_uid, secret.stat().st_mode & 0o777) == (0, 0o600), "a file of root's was given away")
    require(list(vault.iterdir()) == [secret], "a file was made in a folder of root's")
    for file in folder.rglob("*"):
        is_own = file.is_file() and not file.is_symlink() and not file.samefile(secret)
        require(not is_own or b"4711" not in file.read_bytes(), "root's secret was copied out")


def trial(desk, _, tally):
    if os.getuid() != 0:
        return tally.skip("left out, only for root")
    place, what = SCENES[tally.index % len(SCENES)]
    tally.tried(f"{place} {what}")
    vault, folder = desk.path("vault"), desk.path("stranger")
    target, output, at = set_up(desk, place, vault, folder)
    deed = DEEDS[what].format(goal=vault if place == "folder" else vault / "a.conf", place=at)
    # The kernel may let nobody but root give a second name to a file of root's.
    user = 0 if what == NAME else STRANGER
    with subprocess.Popen(["sh", "-c", deed], user=user, group=user, extra_groups=[]) as stranger:
        require(what == CHANGED or stranger.wait() == 0, "the stranger could not lay it")
        try:
            go_through(desk, target, output)
        finally:
            stranger.kill()
    check(vault, folder)
