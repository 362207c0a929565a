"""Certificates with whatever texts a trial wants on them. Nobody verifies their signatures."""

CLASSES = {"CN": "550403", "O": "55040a", "OU": "55040b", "C": "550406", "L": "550407",
           "DC": "0992268993f22c640119", "E": "2a864886f70d010901"}
SIGNED_WITH, KEY_TYPE, CURVE = "2a8648ce3d040302", "2a8648ce3d0201", "2a8648ce3d030107"
USAGE, LOGON, OTHER_NAMES, PRINCIPAL = "551d25", "2b060104018237140202", "551d11", "2b060104018237140203"
UTF8, PRINTABLE, T61, BMP = 0x0C, 0x13, 0x14, 0x1E


def der(tag, *content):
    body = b"".join(content)
    if len(body) < 0x80:
        return bytes([tag, len(body)]) + body
    size = len(body).to_bytes((len(body).bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(size)]) + size + body


def marked(identifier, *content):
    return der(0x30, der(0x06, bytes.fromhex(identifier)), *content)


def part(kind, text, tag=UTF8):
    """A component of a name."""
    return der(0x31, marked(CLASSES[kind], der(tag, text)))


def make(subject, principal=b"ann@tessaly.example", serial=b"\x0a\x01", principal_tag=UTF8):
    """A certificate for smart-card logon; the subject is parts of a name. None: no alternative name."""
    validity = der(0x30, der(0x17, b"200101000000Z"), der(0x17, b"491231235959Z"))
    key = der(0x30, marked(KEY_TYPE, der(0x06, bytes.fromhex(CURVE))), der(0x03, b"\0\4" + bytes(range(64))))
    extensions = marked(USAGE, der(0x04, marked(LOGON)))
    if principal is not None:
        name = der(0x06, bytes.fromhex(PRINCIPAL)) + der(0xA0, der(principal_tag, principal))
        extensions += marked(OTHER_NAMES, der(0x04, der(0x30, der(0xA0, name))))
    body = der(0x30, der(0xA0, der(0x02, b"\2")), der(0x02, serial), marked(SIGNED_WITH),
               der(0x30, part("CN", b"Card CA")), validity, der(0x30, *subject), key, der(0xA3, der(0x30, extensions)))
    return der(0x30, body, marked(SIGNED_WITH), der(0x03, b"\0" + der(0x30, der(0x02, b"\1"), der(0x02, b"\1"))))


def ann():
    """An honest card holder."""
    return make([part("O", b"Example Org"), part("CN", b"Ann Lee")])


def mutate(data, random):
    """The same with some bytes changed, cut, doubled or claimed to be longer."""
    data = bytearray(data)
    for _ in range(random.choice((1, 1, 2, 4, 16))):
        place = random.randrange(len(data) or 1)
        some = data[place:place + random.randrange(1, 30)]
        claim = random.choice((b"\x84\xff\xff\xff\xff", b"\x80", b"\x88" + b"\xff" * 8, b"\0"))
        flipped = bytes(byte ^ 1 << random.randrange(8) for byte in some[:1])
        length, new = random.choice(((1, random.randbytes(1)), (1, flipped), (len(some), b""), (0, some), (1, claim),
                                     (len(data), b"")))
        data[place:place + length] = new
    return bytes(data)
