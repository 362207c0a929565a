"""Every function of the card library that the service calls fails, lies, throws, hangs, ends its thread."""

import time
from random import Random

import certificate
from desk import require

LANES = 20
WEIGHT = 35
# The functions that the service calls, by when it does: "end" is the SIGTERM.
FUNCTIONS = {
    "start": "C_GetFunctionList C_Initialize QixEventDescriptor C_WaitForSlotEvent C_GetSlotInfo C_GetSlotList",
    "insertion": "C_WaitForSlotEvent C_GetSlotInfo C_GetSlotList C_GetTokenInfo C_OpenSession C_CloseSession "
                 "C_FindObjectsInit C_FindObjects C_FindObjectsFinal C_GetAttributeValue",
    "removal": "C_WaitForSlotEvent C_GetSlotInfo", "end": "C_Finalize"}
ANSWERS = (0x2, 0x5, 0x6, 0x7, 0x8, 0xA, 0x12, 0x30, 0x31, 0x32, 0x54, 0x91, 0xB3, 0xE0, 0x101, 0x150, 0x190, 0x191,
           0x80000000, 0xFFFFFFFFFFFFFFFF)
DEEDS = ([("answers an error", f"answer:{answer:#x}") for answer in ANSWERS] +
         [("throws", f"throw:{kind}") for kind in ("exception", "number", "memory")] * 3 +
         [("lies", f"lie:{kind}") for kind in ("ones", "zero", "huge", "more")] * 3 +
         [("hangs for 1.5 s", "hang:1500")] * 2 + [("ends its thread", "leave:")] * 2)
CALLS = ("1 1", "2 2", "3 5", "1 1000000000")  # the first and the last
# A watch that has lost its library asks for it again every 30 rounds, which may take 20 s.
HEALING = 32
EVERY = [(function, label, deed, calls, stage) for stage, functions in FUNCTIONS.items()
         for function in functions.split() for label, deed in DEEDS for calls in CALLS]


def misbehave(desk, stage, order):
    """Runs up to the stage, gives the order, and goes through the stage. Whether the card was connected."""
    def order_at(*stages):
        if stage in stages:
            desk.write("order", order)
    order_at("start")
    desk.start()
    require(stage == "start" or desk.traced("Watch - Event"), "the service did not begin")
    time.sleep(1.2 if stage == "start" else 0)
    order_at("insertion")
    desk.insert(certificate.ann())
    is_well = stage in ("removal", "end")
    connected = desk.traced("Watch - Connected slot 1", 15 if is_well or "hang" in order else 2.5)
    require(connected or not is_well, "an insertion was not seen although the library was well")
    order_at("removal", "end")
    if stage == "removal":
        desk.remove()
        time.sleep(2.5)
    return connected


def go_through(desk, function, calls, deed, stage):
    connected = misbehave(desk, stage, f"{function} {calls} {deed}")
    # A library that gave a list without functions once is not asked for another.
    if stage == "end" or function == "C_GetFunctionList" and "lie" in deed:
        return desk.stop(30)
    outs = 0 if stage == "removal" else desk.notes("out")
    desk.path("order").unlink()
    time.sleep(1)  # what comes and goes between two polls is not seen
    desk.remove()
    # A lie about the very event may hide it for good: the library is believed until the next one.
    if "lie" in deed:
        time.sleep(1)
        desk.insert(certificate.ann())
        time.sleep(2)
        desk.remove()
        time.sleep(2)
    else:
        require(not connected or desk.noted("out", outs + 1, HEALING), "a pulled card's remove commands never ran")
        time.sleep(4 if "hang" in deed else 1)
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
    desk.library = desk.misbehaving
    one, other = (desk.write(name, "[Mail]\nUsername=\n") for name in ("a.conf", "b.conf"))
    desk.configure('-match "cn=Ann Lee" -sync -recognized config Watch',
                   [desk.note("in"), f"parallel set -config {one}",
                    f"parallel extern {desk.called},ann;home -config {other}", f"set -config {one}"],
                   [desk.note("out")])
    try:
        go_through(desk, function, calls, deed, stage)
    finally:
        tally.counted("(the function was not called so often)", not desk.path("done").exists())
