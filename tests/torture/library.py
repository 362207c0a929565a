"""Every function of the card library that the service calls fails, lies, throws, hangs, ends its thread."""

from random import Random

import certificate
from desk import Damage, pause, require

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
CALLS = ("1 1", "2 2", "3 5", "1 1000000000")  # the first and the last
# A watch that has lost its library asks for it again every 30 rounds, which may take 20 s.
HEALING = 32


EVERY = [(function, label, deed, calls, stage) for function in FUNCTIONS for label, deed in DEEDS
         for stage in FUNCTIONS[function] for calls in CALLS]


def misbehave(desk, stage, order):
    """Runs up to the stage, gives the order, and goes through the stage. Whether the card was connected."""
    def order_at(*stages):
        if stage in stages:
            desk.write("order", order)
    order_at("start")
    desk.start()
    if stage == "start":
        pause(1.2)
        desk.check_alive()
    else:
        require(desk.traced("Watch - Event"), "the service did not begin")
    order_at("insertion")
    desk.insert(certificate.ann())
    is_well = stage in ("removal", "end")
    connected = desk.traced("Watch - Connected slot 1", 12 if "hang" in order else 15 if is_well else 2.5)
    require(connected or not is_well, "an insertion was not seen although the library was well")
    order_at("removal", "end")
    if stage == "removal":
        desk.remove()
        pause(2.5)
    return connected


def go_through(desk, function, calls, deed, stage):
    connected = misbehave(desk, stage, f"{function} {calls} {deed}")
    # A library that gave a list without functions once is not asked for another.
    if stage == "end" or function == "C_GetFunctionList" and "lie" in deed:
        return desk.stop(30)
    outs = 0 if stage == "removal" else desk.notes("out")
    desk.path("order").unlink()
    pause(1)  # what comes and goes between two polls is not seen
    desk.remove()
    # A lie about the very event may hide it for good: the library is believed.
    require(not connected or "lie" in deed or desk.noted("out", outs + 1, HEALING),
            "a connected card was pulled and the remove commands never ran")
    pause(4 if "hang" in deed else 1)
    if "lie" in deed:
        desk.insert(certificate.ann())
        pause(2)
        desk.remove()
        pause(2)
    # Then a card that comes is seen, once, and so is that it goes.
    ins, outs = desk.notes("in"), desk.notes("out")
    desk.insert(certificate.ann())
    require(desk.noted("in", ins + 1, HEALING), "the library was well again, and a card was not seen")
    require(desk.notes("in") == ins + 1, "one insertion ran its commands twice")
    desk.remove()
    require(desk.noted("out", outs + 1, HEALING), "the library was well again, and a removal was not seen")
    desk.stop()


def trial(desk, _, tally):
    every = Random(f"{tally.plan.seed}/library").sample(EVERY, len(EVERY))
    function, label, deed, calls, stage = every[tally.index % len(EVERY)]
    tally.tried(f"a function {label}")
    desk.library = desk.tools.misbehaving.parent
    one, other = (desk.write(name, "[Mail]\nUsername=\n") for name in ("a.conf", "b.conf"))
    desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                   [desk.note("in"), f"parallel set -config {one}",
                    f"parallel extern {desk.tools.called},ann;home -config {other}", f"set -config {one}"],
                   [desk.note("out")])
    try:
        go_through(desk, function, calls, deed, stage)
    except Damage as damage:
        raise Damage(f"{damage} ({function} calls {calls} at the {stage}: {deed})") from damage
    finally:
        if not desk.path("done").exists():
            tally.counted("(the function was not called so often)")
