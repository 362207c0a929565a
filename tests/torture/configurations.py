"""Configuration files as no editor leaves them: as the service's own, and as what a set command fills."""

import time

import certificate
from desk import read, require

LANES = 8
WEIGHT = 10
# Its paths are relative: one that is mutated leads nowhere else.
SAMPLE = b"""[Trace]
watch=trace.log
[Install]
Directory=library/
[Command]
Watch=-match "cn=Ann Lee" -wait "0|0" -sync config Watch|Extra|{site}||config Watch
Watch Extra=-recognized config Extra
[Condition]
1={site} qixxwatch
2={other} {site},{other}
[Watch]
Background=
[Watch Insert]
1=kill "%UPN%" %OID.CN%
2=set -config target.conf
3=parallel set -config "target.conf"
4=extern ./called.so,a;b -config target.conf
5=load ./called.so,ReadCommand x
<Image=
iVBORw0KGgo=
/>
[Watch Remove]
1=set -config target.conf
2=close x
[Watch Extra Remove]
1=kill x
"""


def with_noise(text, random):
    return random.choice((text, b"")) + random.randbytes(random.choice((0, 1, 7, 100, 5000, 200000)))


def with_huge_line(text, random):
    place = random.randrange(len(text))
    filling = bytes([random.choice(b"Ax=[|%\" \\")]) * random.choice((255, 1024, 70000, 5000000))
    return text[:place] + filling + text[place:]


def with_ends(*ends):
    return lambda text, random: b"".join(line + random.choice(ends) for line in text.split(b"\n"))


def in_utf16(text, random):
    code = random.choice(("utf-16-le", "utf-16-be"))
    return random.choice((b"", b"\xff\xfe", b"\xfe\xff")) + text.decode("latin-1").encode(code)


DEEDS = (("random bytes", with_noise), ("mutations", certificate.mutate), ("mutations", certificate.mutate),
         ("huge lines", with_huge_line), ("line ends", with_ends(b"\n", b"\r\n", b"\r", b"\n\r", b"\r\r\n")),
         ("NUL bytes", with_ends(b"\n", b"\0\n", b"\n\0")), ("UTF-16", in_utf16),
         ("many entries", lambda text, _: text + b"".join(b"%d=kill x\n" % number for number in range(20000))),
         ("cut short", lambda text, random: text[:random.randrange(len(text))]))


def read_as_own(desk, random, tally):
    deed, spoil = random.choice(DEEDS)
    desk.write("system.conf", spoil(SAMPLE, random))
    desk.write("target.conf", "[Mail]\nUsername=\n")
    desk.path("library").symlink_to(desk.library)
    desk.path("called.so").symlink_to(desk.called)
    desk.insert(certificate.ann())
    if random.random() < 0.3:  # what people ask of the file is answered, whatever stands in it
        tally.tried("as qix.conf: --check and --list")
        desk.start(*random.choice((["--check"], ["--list"], ["--list", "--json"], ["--check", "system.conf"])))
        code = desk.wait()
        return require(code in (0, 1, 2), f"--check or --list ended with {code}")
    tally.tried(f"as qix.conf: {deed}")
    desk.start()
    time.sleep(random.uniform(0.05, 0.6))
    if desk.process.poll() != 0:  # there may have been nothing to do
        desk.stop()


# --- what a set command fills ----------------------------------------------------------------------

CONTENT = (b"[Mail]", b"[mail]", b"[Other]", b"[]", b"[open", b"Username=", b"username = old", b"Domain=x", b"a=1",
           b"=3", b"c", b"; note", b"# note", b"", b"  ", b"\t", b"<Block=", b"QUJD", b"/>", b"<A=QQ==/>", b"x" * 300,
           b"y=" + b"z" * 12000, b"nul=\0\0end", b"\xfe\xfd=\x80", b"Usernam\xc3\xa9=e", b"  indented=1")
ENDS = (b"\n",), (b"\r\n",), (b"\r",), (b"\n", b"\r\n")


def lines_of(text):
    """The lines that must still be there: not the keys that are set, nor blank ones. CR alone ends lines only where
    there is no LF; elsewhere it is dropped when the file is written."""
    text = text.replace(b"\r", b"" if b"\n" in text else b"\n")
    return [line for line in text.split(b"\n")
            if line.strip() and line.partition(b"=")[0].strip().lower() not in (b"username", b"domain")]


def fill(desk, random, tally):
    tally.tried("as a target of a set command")
    # Leading bytes above 0x7F are byte order marks, which a save drops.
    lines, ends = [b"; head", *random.choices(CONTENT, k=random.randrange(1, 40))], random.choice(ENDS)
    before = b"".join(line + random.choice(ends) for line in lines)
    before = random.choice((before, before, before.rstrip(b"\r\n")))
    target = desk.write("target.conf", before)
    desk.configure("-sync config Watch", [f"set -config {target}"])
    desk.insert(certificate.ann())
    desk.start()
    require(desk.traced("Watch - Connected slot 1"), "the set command did not come to its end")
    desk.stop()
    after = target.read_bytes()
    require(b"Set command ... OK" in desk.trace() or after == before, "a set command that failed has changed its file")
    require(lines_of(before) == lines_of(after), "a line was lost, moved or made")
    require(after == before or read(desk.path("target.conf.org"), None) == before,
            "the saved copy is not the text before")


def trial(desk, random, tally):
    (fill if random.random() < 0.5 else read_as_own)(desk, random, tally)
