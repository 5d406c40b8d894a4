"""What a fault at one byte of the line makes of the frames around it, in a codec of its own: neither
the daemon's nor the simulator's. Used by the cases, to say beforehand what may be lost."""

FLAG, ESCAPE = 0x7E, 0x7D

# What mcusim's fault command is told, by kind; each touches one byte.
KINDS = {
    'drop': 'drop',
    'flip': 'flip {bit}',
    'double': 'double',
    'flag': 'insert 0x7E',
    'escape': 'insert 0x7D',
    'pause': 'pause 500',  # ms: less than any reply is waited for
    'silence': 'silence',  # both ways, until the MCU is reset
    'power': 'power 300',  # ms
}


def order(direction, byte, kind):
    """The command that puts this fault at this byte."""
    return f'fault {direction} {byte} ' + KINDS[kind].format(bit=byte % 8)


def touched(stream, byte, kind):
    """The stream as it arrives; what comes after a silence or a power cut is the caller's."""
    head, one, tail = stream[:byte], stream[byte:byte + 1], stream[byte + 1:]
    return {
        'drop': head + tail,
        'flip': head + bytes(value ^ 1 << byte % 8 for value in one) + tail,
        'double': head + one + one + tail,
        'flag': head + bytes([FLAG]) + one + tail,
        'escape': head + bytes([ESCAPE]) + one + tail,
        'pause': stream,
    }.get(kind, head)


def intact(payload):
    """Whether payload ends in its FCS-16 of RFC 1662."""
    fcs = 0xFFFF
    for byte in payload:
        fcs ^= byte
        for _ in range(8):
            fcs = fcs >> 1 ^ (0x8408 if fcs & 1 else 0)
    return len(payload) >= 2 and fcs == 0xF0B8


def frames(stream, aborts):
    """The packets that arrive whole. aborts: an escaped flag ends the frame (as in the MCU) rather
    than standing for 0x5E (as in the daemon)."""
    packets, payload, escaped = [], bytearray(), False
    for byte in stream:
        if byte == FLAG and (aborts or not escaped):
            if not escaped and intact(payload):
                packets.append(bytes(payload[:-2]))
            payload, escaped = bytearray(), False
        elif byte == ESCAPE and not escaped:
            escaped = True
        else:
            payload.append(byte ^ 0x20 if escaped else byte)
            escaped = False
    return packets
