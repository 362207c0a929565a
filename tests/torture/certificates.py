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
[Last]
Number=%SERIALNUMBER%
username=old
"""
ORIGINAL = b"[Untouched]\nUsername=before\n"
# What an attacker would put into a name; {0} is a file that must never appear.
TEXTS = (
    # commands, conditions, redirections
    "x|none||/usr/bin/touch {0} ", "a||/usr/bin/touch {0}||b", "|{site}||", "a|b|c", "> {0}",
    '" /usr/bin/touch {0} "', "; /usr/bin/touch {0} ;", "$(/usr/bin/touch {0})", "`/usr/bin/touch {0}`",
    "parallel /usr/bin/touch {0}", "config Extra",
    # lines, sections, comments, blocks
    "\n2=/usr/bin/touch {0}\n", "\r\n[Watch Remove]\r\n1=/usr/bin/touch {0}\r\n", "\n[Command]\nWatch={0}\n",
    "[Watch Remove]", "<Block", ";gone", "#gone",
    # paths and options
    "../../..", "../", "/", "./..", " -config {0} ", '" -config "{0}" "', "-match",
    # placeholders and formats
    "%USERNAME%", "%UPN%%UPN%", "%SUBJECT%", "%OID.CN%", "%OID.O%%OID.CN%%SERIALNUMBER%", "%", "%%", "%OID.", "%s%n%x",
    "%d" * 40,
    # what is not seen, or ends something
    "\x1b]0;title\x07", "\x9b31m", "\u202egnp.exe", "\u2066\u200f", "\0", "a\0b", "\t", "\x7f", '"', "'", "'; exit",
    # separators of names
    "\\,", "+", ",", "O=Example Org,CN=Ann Lee", "=", "@", "ann@", "a@b@c", " ", "",
    # lengths
    "A" * 70, "A" * 254, "A" * 300, "B" * 3000, "\u00e9" * 200, "\u20ac" * 90, "\U0001f600" * 64)
BROKEN = (b"", b"", b"", b"\xff\xfe", b"\xc3", b"\xe2\x80", b"\xed\xa0\x80", b"\xc0\xaf", b"\xf5\x80\x80\x80")


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
    product = (f"[Trace]\nwatch={desk.trace_file}\n[Install]\nDirectory={desk.library}/\n"
               "[Command]\nWatch=config Watch\n[Mail]\nUsername=\nDomain=\n"
               f'[Watch Remove]\n1={show} "%USERNAME%" "%OID.CN%" removed\n; %SUBJECT%\n2={show} "%UPN%" removed\n')
    desk.write("product.conf", product)
    desk.configure("-sync config Watch", [
        f'{show} "%UPN%" "%USERNAME%" "%DOMAIN%" "%SERIALNUMBER%" quoted', f'{show} "%SUBJECT%" subject',
        f'{show} "%OID.CN%" "%OID.O%" component', f"{show} %USERNAME% %OID.CN% bare",
        f'extern {desk.tools.called},"%USERNAME% -config {path("good.conf")}',
        f"set -config {path('target.conf')}", f"set -config {path('product.conf')}",
        f'set -config "{path("inner")}/%USERNAME%/x.conf"'])
    return product


def is_cut(desk):
    """A remove command is read up to 255 characters, also where a card's value has made it longer."""
    lines = desk.path("product.conf").read_bytes().split(b"\n")
    return any(len(line) > 257 and line[:2] in (b"1=", b"2=") for line in lines)


def check_arguments(desk):
    """Each call of `show` has its last word, and in quoted places as many arguments as were written."""
    words = read(desk.path("shown")).split(b"\0")[:-1]
    written = {b"quoted": (5,), b"subject": (2,), b"component": (3,), b"removed": (2, 3), b"bare": range(1 << 20)}
    while words:
        count = int(words[0])
        arguments, words = words[1:count + 1], words[count + 1:]
        last = arguments[-1] if arguments else b""
        require(count in written.get(last, ()), f"a card's value made {count} arguments: {last}")
        for argument in arguments:
            check_text(argument, "an argument")


def check_text(text, where):
    found = UNSEEN.search(text.decode("utf-8", "surrogateescape"))
    require(not found, f"{where} holds the character {found and ascii(found.group())}")


def kind_of(line):
    first = line.lstrip()[:1]
    return first if first in ("[", "<", ";", "#") else "text"


def check_file(desk, name, before):
    """The lines, sections, keys and conditions are those that were written."""
    content = desk.path(name).read_bytes()
    check_text(content, "a file")
    require(len(content) <= 2 * len(before) + 65536, f"a file of {len(before)} bytes grew to {len(content)}")
    text = content.decode("utf-8")
    old, new = before.split("\n"), text.split("\n")
    require(len(old) == len(new) and "\r" not in text, "a card's value made lines in a file")
    for was, line in zip(old, new):
        require(kind_of(was) == kind_of(line), "a card's value turned a line of a file into one of another kind")
        require(was.count("|") == line.count("|"), "a card's value made a condition in a file")
        key, sign, _ = was.partition("=")
        require(not sign or "%" in key or key == line.partition("=")[0], "a card's value changed the name of an entry")


def check_trace(desk, cut):
    for line in desk.trace().split(b"\n")[:-1]:
        require(HEADER.match(line), "a card's value made a line in the trace")
        cut or check_text(line, "the trace")


def check_everything(desk, product, known):
    cut = is_cut(desk)  # which may halve a character
    check_trace(desk, cut)
    cut or check_arguments(desk)
    check_file(desk, "target.conf", TARGET)
    check_file(desk, "product.conf", product)
    for name in ("canary.conf", "x.conf"):
        require(desk.path(name).read_bytes() == ORIGINAL, f"a card's value chose {name} to be written")
    for name in {entry.name for entry in desk.folder.iterdir()} - known:
        require(name.startswith("~qix"), f"a file appeared ({name})")


def trial(desk, random, tally):
    tally.tried("hostile certificates")
    product = set_up(desk)
    desk.insert(hostile(desk.path("canary"), random))
    known = {"stderr.txt", "trace.log", "shown", ".qix", "target.conf.org", "product.conf.org", *os.listdir(desk.folder)}
    for configuration, done in (("system.conf", "Connected slot 1"), ("product.conf", "Remove event ... done")):
        desk.variables["qixconfigglobal"] = str(desk.path(configuration))
        desk.start()
        require(desk.traced(f"Watch - {done}", limit=30), f"the commands of {configuration} did not come to their end")
        desk.stop()
        check_everything(desk, product, known)
        desk.remove()
