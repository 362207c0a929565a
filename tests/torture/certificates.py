"""Cards whose names were chosen to get in: as a command, an argument, a line, a section, a condition, a path."""

import os
import re

import certificate
from desk import read, require

LANES = 8
WEIGHT = 20
HEADER = re.compile(rb"[^\n]*?\] \d\d\.\d\d\.\d\d\.\d\d\d ")
# Control characters of both sets, the marks that turn the direction of writing, and what is not UTF-8.
UNSEEN = re.compile("[\0-\x08\x0b\x0c\x0e-\x1f\x7f\x80-\x9f\udc80-\udcff\u061c\u200e\u200f\u202a-\u202e\u2066-\u2069]")
TARGET = """[Mail]
Username=
Domain=
; for %SUBJECT%
Greeting=Hello %USERNAME% of %DOMAIN%, %OID.CN%
%OID.CN%
%UPN% at the start
<Block=%SERIALNUMBER%/>
Site=a|none||%OID.O%
Command=run "%USERNAME%" "%OID.CN%"
[Last]
Number=%SERIALNUMBER%
username=old
"""
ORIGINAL = b"[Untouched]\nUsername=before\n"
# What an attacker would put into a name; {0} is a file that must never appear.
TEXTS = (
    # commands, conditions, redirections
    "x|none||/usr/bin/touch {0} ", "|{site}||", "> {0}", '" /usr/bin/touch {0} "', "$(/usr/bin/touch {0})",
    # lines, sections, comments, blocks
    "\n2=/usr/bin/touch {0}\n", "\r\n[Watch Remove]\r\n1=/usr/bin/touch {0}\r\n", "<Block", ";gone",
    # paths and options
    "../../..", "../", "/", "./..", " -config {0} ", '" -config "{0}" "', "-match",
    # placeholders and formats
    "%USERNAME%", "%UPN%%UPN%", "%SUBJECT%", "%OID.O%%OID.CN%%SERIALNUMBER%", "%", "%OID.", "%s%n%x", "%d" * 40,
    # what is not seen, or ends something
    "\x1b]0;title\x07", "\x9b31m", "\u202egnp.exe", "\u2066\u200f", "a\0b", "\t", "\x7f", '"', "'; exit",
    # separators of names; lengths
    "\\,", "+", ",", "=", "@", "a@b@c", " ", "", "A" * 254, "B" * 3000, "\u00e9" * 200, "\U0001f600" * 64)
BROKEN = (b"", b"", b"", b"\xff\xfe", b"\xc3", b"\xe2\x80", b"\xed\xa0\x80", b"\xf5\x80\x80\x80")


def bytes_of(text, random, tag):
    if tag == certificate.BMP:
        return text.encode("utf-16-be", "surrogatepass") + random.choice((b"", b"", b"\xd8\x00", b"\xdc\x00", b"\0"))
    return text.encode("utf-8", "surrogatepass") + random.choice(BROKEN)


def hostile(canary, random):
    def value():
        text = "".join(random.choices(TEXTS, k=random.choice((1, 1, 1, 2, 3)))).replace("{0}", str(canary))
        tag = random.choice((certificate.UTF8,) * 4 + (certificate.BMP, certificate.T61, certificate.PRINTABLE))
        return bytes_of(text, random, tag), tag
    subject = [certificate.part(random.choice(list(certificate.CLASSES)), *value())
               for _ in range(random.randrange(1, 6))]
    principal, tag = value()
    principal = random.choice((principal, principal, principal + b"@home", b"ann@" + principal, None))
    serial = random.choice((b"\1", b"\xff" * 20, b"", bytes(300), random.randbytes(16)))
    made = certificate.make(subject, principal, serial, tag)
    return made if random.random() < 0.7 else certificate.mutate(made, random)


def set_up(desk):
    path = desk.path
    show = desk.script("show", f'printf "%s\\0" "$#" "$@" >>{path("shown")}')
    path("inner").mkdir()
    for name in ("canary.conf", "x.conf", "good.conf", "inner/x.conf"):
        desk.write(name, ORIGINAL)
    desk.write("target.conf", TARGET)
    desk.configure("-sync config Watch", [
        f'{show} "%UPN%" "%USERNAME%" "%DOMAIN%" "%SERIALNUMBER%" quoted', f'{show} "%SUBJECT%" subject',
        f'{show} "%OID.CN%" "%OID.O%" component', f"{show} %USERNAME% %OID.CN% bare",
        f'extern {desk.called},"%USERNAME% -config {path("good.conf")}',
        f"set -config {path('target.conf')}",
        f'set -config "{path("inner")}/%USERNAME%/x.conf"'])


def check_arguments(desk):
    """Each call of `show` has its last word, and in quoted places as many arguments as were written."""
    words = read(desk.path("shown")).split(b"\0")[:-1]
    written = {b"quoted": (5,), b"subject": (2,), b"component": (3,), b"bare": range(1 << 20)}
    while words:
        count = int(words[0])
        arguments, words = words[1:count + 1], words[count + 1:]
        require(count in written.get(b"".join(arguments[-1:]), ()), f"a card's value made {count} arguments")
        check_text(b"".join(arguments), "an argument")


def check_text(text, where):
    found = UNSEEN.search(text.decode("utf-8", "surrogateescape"))
    require(not found, f"{where} holds the character {found and ascii(found.group())}")


def check_target(desk):
    """The lines, sections, keys and conditions are those that were written."""
    content = desk.path("target.conf").read_bytes()
    check_text(content, "a file")
    require(len(content) <= 65536, f"a file of {len(TARGET)} bytes grew to {len(content)}")
    old, new = TARGET.split("\n"), content.decode("utf-8").split("\n")
    require(len(old) == len(new) and b"\r" not in content, "a card's value made lines in a file")
    for was, line in zip(old, new):
        firsts = {text.lstrip()[:1] for text in (was, line)}
        require(len(firsts) == 1 or not firsts & set("[<;#"), "a card's value turned a line into one of another kind")
        for mark, what in (("|", "condition"), ('"', "argument")):
            require(was.count(mark) == line.count(mark), f"a card's value made a {what} in a file")
        key, sign, _ = was.partition("=")
        require(not sign or "%" in key or key == line.partition("=")[0], "a card's value changed the name of an entry")


def trial(desk, random, tally):
    tally.tried("hostile certificates")
    set_up(desk)
    desk.insert(hostile(desk.path("canary"), random))
    known = {"stderr.txt", "trace.log", "shown", ".qix", "target.conf.org", *os.listdir(desk.folder)}
    desk.start()
    require(desk.traced("Watch - Connected slot 1", limit=30), "the commands did not come to their end")
    desk.stop()
    check_text(desk.trace(), "the trace")
    check_arguments(desk)
    check_target(desk)
    for line in desk.trace().split(b"\n")[:-1]:
        require(HEADER.match(line), "a card's value made a line in the trace")
    for name in ("canary.conf", "x.conf"):
        require(desk.path(name).read_bytes() == ORIGINAL, f"a card's value chose {name} to be written")
    for name in {entry.name for entry in desk.folder.iterdir()} - known:
        require(name.startswith("~qix"), f"a file appeared ({name})")
