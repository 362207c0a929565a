"""Every function of the card library that the service calls fails, lies, throws, hangs, ends its thread."""

from random import Random

import certificate
from desk import Damage, eventually, pause

LANES = 20
WEIGHT = 35
# The functions that the service calls, and when it does: "end" is the SIGTERM.
FUNCTIONS = {
    "C_GetFunctionList": ("start",), "C_Initialize": ("start",), "QixEventDescriptor": ("start",),
    "C_WaitForSlotEvent": ("start", "insertion", "removal"), "C_GetSlotInfo": ("start", "insertion", "removal"),
    "C_GetSlotList": ("start", "insertion"), "C_GetTokenInfo": ("insertion",), "C_OpenSession": ("insertion",),
    "C_CloseSession": ("insertion",), "C_FindObjectsInit": ("insertion",), "C_FindObjects": ("insertion",),
    "C_FindObjectsFinal": ("insertion",), "C_GetAttributeValue": ("insertion",), "C_Finalize": ("end",)}
ANSWERS = (0x2, 0x5, 0x6, 0x7, 0x8, 0xA, 0x12, 0x30, 0x31, 0x32, 0x54, 0x91, 0xB3, 0xE0, 0x101, 0x150, 0x190, 0x191,
           0x80000000, 0xFFFFFFFFFFFFFFFF)
DEEDS = ([("answers an error", f"answer:{answer:#x}") for answer in ANSWERS] +
         [("throws", f"throw:{kind}") for kind in ("exception", "number", "memory")] * 3 +
         [("lies", f"lie:{kind}") for kind in ("ones", "zero", "huge", "more")] * 3 +
         [("hangs for 1.5 s", "hang:1500")] * 2 + [("ends its thread", "leave:")] * 2)
CALLS = ((1, 1), (2, 2), (3, 5), (1, 10 ** 9))
# A watch that has lost its library asks for it again every 30 rounds, which may take 20 s.
HEALING = 32


def plan(seed):
    every = [(function, label, deed, calls, stage) for function in FUNCTIONS for label, deed in DEEDS
             for stage in FUNCTIONS[function] for calls in CALLS]
    Random(f"{seed}/library").shuffle(every)
    return every


def seen(desk, word, before, limit):
    def more():
        desk.check_alive()
        return desk.notes().count(word) > before
    return eventually(more, limit, 0.05)


def misbehave(desk, stage, order):
    """Runs up to the stage, gives the order, and goes through the stage."""
    if stage == "start":
        desk.order(*order)
    desk.start()
    if stage == "start":
        pause(1.2)
        desk.check_alive()
    elif not desk.traced("Watch - Event"):
        raise Damage("the service did not begin")
    if stage == "insertion":
        desk.order(*order)
    desk.insert(certificates=[certificate.ann()])
    limit = 12 if "hang" in order[-1] else 2.5 if stage in ("start", "insertion") else 15
    connected = desk.traced("Watch - Connected slot 1", limit=limit)
    if stage in ("start", "insertion"):
        return connected
    if not connected:
        raise Damage("an insertion was not seen although the library was well")
    desk.order(*order)
    if stage == "removal":
        desk.remove()
        pause(2.5)
    return True


def check_healed(desk):
    """A card that comes is seen, once, and so is that it goes."""
    ins, outs = desk.notes().count("in"), desk.notes().count("out")
    desk.insert(certificates=[certificate.ann()])
    if not seen(desk, "in", ins, HEALING):
        raise Damage("the library was well again, and a card was not seen")
    if desk.notes().count("in") != ins + 1:
        raise Damage("one insertion ran its commands twice")
    desk.remove()
    if not seen(desk, "out", outs, HEALING):
        raise Damage("the library was well again, and a removal was not seen")


def go_through(desk, stage, order):
    deed = order[-1]
    connected = misbehave(desk, stage, order)
    # A library that gave a list without functions once is not asked for another.
    if stage == "end" or order[0] == "C_GetFunctionList" and "lie" in deed:
        desk.stop(30)
        return
    outs = 0 if stage == "removal" else desk.notes().count("out")
    desk.path("order").unlink()
    pause(1)  # what comes and goes between two polls is not seen
    desk.remove()
    # A lie about the very event may hide it for good: the library is believed.
    if connected and "lie" not in deed and not seen(desk, "out", outs, HEALING):
        raise Damage("a connected card was pulled and the remove commands never ran")
    pause(4 if "hang" in deed else 1)
    if "lie" in deed:
        desk.insert(certificates=[certificate.ann()])
        pause(2)
        desk.remove()
        pause(2)
    check_healed(desk)
    desk.stop()


def trial(desk, _, tally):
    every = plan(tally.seed)
    function, label, deed, calls, stage = every[tally.index % len(every)]
    tally.tried(f"a function {label}")
    desk.library = desk.tools.misbehaving.parent
    for name in ("a.conf", "b.conf"):
        desk.path(name).write_text("[Mail]\nUsername=\n", encoding="utf-8")
    desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                   [desk.note("in"), f"parallel set -config {desk.path('a.conf')}",
                    f"parallel extern {desk.tools.called},ann;home -config {desk.path('b.conf')}",
                    f"set -config {desk.path('a.conf')}"], [desk.note("out")])
    try:
        go_through(desk, stage, (function, *calls, deed))
    except Damage as damage:
        raise Damage(f"{damage} ({function} calls {calls[0]} to {calls[1]} at the {stage}: {deed})") from damage
    finally:
        if not desk.path("done").exists():
            tally.counted("(the function was not called so often)")
