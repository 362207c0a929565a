"""Looks at one file as often as it can until SIGTERM: look.py FILE FOLDER. A look that is none of the whole texts
in FOLDER, and one that finds no file, counts as damaged. Prints how many looks there were, and the damaged ones."""

import collections
import json
import os
import signal
import sys

target, folder = sys.argv[1:]
whole = {open(entry, "rb").read() for entry in os.scandir(folder)}
looks, damaged, stopped = 0, collections.Counter(), []
signal.signal(signal.SIGTERM, lambda *_: stopped.append(True))
print("ready", flush=True)
while not stopped:
    looks += 1
    try:
        descriptor = os.open(target, os.O_RDONLY)
    except OSError as error:
        damaged[error.strerror] += 1
        continue
    text = os.read(descriptor, 1 << 20)
    os.close(descriptor)
    if text not in whole:
        damaged[text.decode("latin-1")[:4000]] += 1
print(json.dumps({"looks": looks, "damaged": damaged.total(), "texts": damaged.most_common(20)}))
