"""Certificates with whatever texts a trial wants on them. Nobody verifies their signatures."""

CLASSES = {"CN": "2.5.4.3", "O": "2.5.4.10", "OU": "2.5.4.11", "C": "2.5.4.6", "L": "2.5.4.7",
           "DC": "0.9.2342.19200300.100.1.25", "E": "1.2.840.113549.1.9.1"}
UTF8, PRINTABLE, T61, BMP = 0x0C, 0x13, 0x14, 0x1E


def der(tag, *content):
    body = b"".join(content)
    if len(body) < 0x80:
        return bytes([tag, len(body)]) + body
    size = len(body).to_bytes((len(body).bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(size)]) + size + body


def identifier(dotted):
    first, second, *numbers = map(int, dotted.split("."))
    content = b""
    for number in (first * 40 + second, *numbers):
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.insert(0, 0x80 | number & 0x7F)
        content += bytes(groups)
    return der(0x06, content)


def part(kind, text, tag=UTF8):
    """A component of a name."""
    return der(0x31, der(0x30, identifier(CLASSES[kind]), der(tag, text)))


def make(subject, principal=b"ann@tessaly.example", serial=b"\x0a\x01", principal_tag=UTF8):
    """A certificate for smart-card logon; the subject is parts of a name. None: no alternative name."""
    algorithm = der(0x30, identifier("1.2.840.10045.4.3.2"))
    validity = der(0x30, der(0x17, b"200101000000Z"), der(0x17, b"491231235959Z"))
    key = der(0x30, der(0x30, identifier("1.2.840.10045.2.1"), identifier("1.2.840.10045.3.1.7")),
              der(0x03, b"\0\4" + bytes(range(64))))

    def extension(dotted, value):
        return der(0x30, identifier(dotted), der(0x04, value))
    extensions = extension("2.5.29.37", der(0x30, identifier("1.3.6.1.4.1.311.20.2.2")))
    if principal is not None:
        extensions += extension("2.5.29.17", der(0x30, der(
            0xA0, identifier("1.3.6.1.4.1.311.20.2.3"), der(0xA0, der(principal_tag, principal)))))
    body = der(0x30, der(0xA0, der(0x02, b"\2")), der(0x02, serial), algorithm, der(0x30, part("CN", b"Card CA")),
               validity, der(0x30, *subject), key, der(0xA3, der(0x30, extensions)))
    return der(0x30, body, algorithm, der(0x03, b"\0" + der(0x30, der(0x02, b"\1"), der(0x02, b"\1"))))


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
