#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""craft.py <folder>

Streams that no encoder at hand writes, made of those that encode has left in the folder: fields as
pictures, damage between NAL units, unusual start codes, changes in mid-stream, very long units.

Beside each NAME.h264 or NAME.h265 stands NAME.expected with a line for each access unit, as the
stream was put together: "<bytes> <idr | recovery | -> <frame | field>". Nothing here is shared with
the program that is tested.
"""
import pathlib
import random
import sys

LONG = b"\x00\x00\x00\x01"
SHORT = b"\x00\x00\x01"
IDR, SEI, SPS, PPS = 5, 6, 7, 8


# ---- bits ----


class Bits:
    """Reads the fields of a NAL unit; what is left is copied as it is."""

    def __init__(self, payload):
        self.text = "".join(f"{byte:08b}" for byte in payload)
        self.at = 0

    def take(self, count):
        taken = self.text[self.at : self.at + count]
        self.at += count
        return taken

    def golomb(self):
        zeros = self.text.index("1", self.at) - self.at
        return self.take(2 * zeros + 1)

    def rest(self):
        """Up to the bit that ends the payload, which packed() sets anew."""
        return self.text[self.at : self.text.rindex("1")]


def golomb(number):
    bits = f"{number + 1:b}"
    return "0" * (len(bits) - 1) + bits


def packed(bits):
    bits += "1"
    bits += "0" * (-len(bits) % 8)
    return int(bits, 2).to_bytes(len(bits) // 8, "big")


def unescaped(nal):
    return nal.replace(b"\x00\x00\x03", b"\x00\x00")


def escaped(payload):
    out, zeros = bytearray(), 0
    for byte in payload:
        if zeros >= 2 and byte <= 3:
            out.append(3)
            zeros = 0
        zeros = zeros + 1 if byte == 0 else 0
        out.append(byte)
    return bytes(out)


# ---- streams as lists of units ----


def nals_of(stream):
    """The NAL units without start codes and without zero bytes between them."""
    return [nal.rstrip(b"\x00") for nal in stream.split(SHORT)[1:]]


def nal_type(nal):
    return nal[0] & 31


class Unit:
    def __init__(self, nals, entry="-", kind="frame"):
        self.nals, self.entry, self.kind = nals, entry, kind
        self.start_codes, self.tail = [LONG] * len(nals), b""

    def bytes(self):
        return b"".join(c + n for c, n in zip(self.start_codes, self.nals)) + self.tail


def units_of(stream):
    """Of a stream with one slice in each picture and no delimiters."""
    units, nals = [], []
    for nal in nals_of(stream):
        nals.append(nal)
        if nal_type(nal) in (1, IDR):
            units.append(Unit(nals, "idr" if nal_type(nal) == IDR else "-"))
            nals = []
    return units


class Folder:
    def __init__(self, path):
        self.path = pathlib.Path(path)

    def read(self, name):
        return (self.path / name).read_bytes()

    def units(self, name):
        return units_of(self.read(name))

    def write(self, name, units):
        (self.path / name).write_bytes(b"".join(unit.bytes() for unit in units))
        lines = [f"{len(unit.bytes())} {unit.entry} {unit.kind}\n" for unit in units]
        (self.path / name).with_suffix(".expected").write_text("".join(lines))


# ---- fields as pictures ----


def field_sequence_set(nal):
    """The lines of a picture become those of a field."""
    bits = Bits(unescaped(nal))
    head = bits.take(8 + 24)
    for _ in range(2):  # id, frame_num's length
        head += bits.golomb()
    order = bits.golomb()
    assert order == golomb(2), "the order of pictures has to follow from frame_num"
    head += order + bits.golomb() + bits.take(1) + bits.golomb() + bits.golomb()
    assert bits.take(1) == "1", "a stream of frames is needed"
    bits.take(1)  # direct_8x8_inference_flag, which fields demand
    return escaped(packed(head + "0" + "0" + "1" + bits.rest())), len_of_frame_number(nal)


def len_of_frame_number(nal):
    bits = Bits(unescaped(nal))
    bits.take(8 + 24)
    bits.golomb()
    code = bits.golomb()
    return int(code, 2) - 1 + 4


def field_slice(nal, frame_number_bits, number, is_bottom):
    """An IDR slice as one of a field: the second field of a picture is no IDR picture itself."""
    bits = Bits(unescaped(nal))
    bits.take(8)
    head = bits.golomb() + bits.golomb() + bits.golomb() + bits.take(frame_number_bits)
    bits.golomb()  # idr_pic_id
    bits.take(2)  # marking of reference pictures
    if is_bottom:
        return escaped(packed(f"{0x61:08b}" + head + "11" + "0" + bits.rest()))
    return escaped(packed(f"{0x65:08b}" + head + "10" + golomb(number % 2) + "00" + bits.rest()))


def fields(units):
    made, length = [], 0
    for number, unit in enumerate(units):
        is_bottom = number % 2 == 1
        nals = []
        for nal in unit.nals:
            if nal_type(nal) == SPS:
                nal, length = field_sequence_set(nal)
            elif nal_type(nal) == IDR:
                nal = field_slice(nal, length, number // 2, is_bottom)
            if not is_bottom or nal_type(nal) == 1:
                nals.append(nal)
        made.append(Unit(nals, "-" if is_bottom else "idr", "field"))
    return made


# ---- the rest ----


def garbage_between(units, random_source):
    """Bytes without a start code belong to the unit before them."""
    for unit in units:
        length = random_source.randrange(0, 300)
        noise = bytes(random_source.randrange(1, 256) for _ in range(length))
        unit.tail = b"\x80" + noise.replace(SHORT, b"") if length else b""
    return units


def with_forbidden_nals(units):
    """NAL units with the bit that is always 0 set, in front of slices and behind them."""
    for unit in units:
        for position in (len(unit.nals) - 1, len(unit.nals) + 1):
            unit.nals.insert(position, b"\xe5\x88\x84\x33")
            unit.start_codes.insert(position, SHORT)
    # What stands behind the slice still belongs to its unit, and so does what stands in front of
    # the next slice when nothing opens that unit first.
    for unit, following in zip(units, units[1:]):
        if len(following.nals) == 3:
            unit.nals.append(following.nals.pop(0))
            unit.start_codes.append(following.start_codes.pop(0))
    return units


def with_start_codes(units, zeros):
    """Of more than three zero bytes, all but one stay with the unit before."""
    surplus = max(zeros - 3, 0)
    for number, unit in enumerate(units):
        first = b"\x00" * min(zeros, 3) + b"\x01"
        inner = b"\x00" * zeros + b"\x01"
        unit.start_codes = [first] + [inner] * (len(unit.nals) - 1)
        if number == 0:
            unit.start_codes[0] = inner
        if number + 1 < len(units):
            unit.tail = b"\x00" * surplus
    return units


def message(length, kind=5):
    size = b"\xff" * (length // 255) + bytes([length % 255])
    return bytes([SEI, kind]) + size + b"\x37" * length + b"\x80"


def with_message(unit, nal):
    position = len(unit.nals) - 1
    unit.nals.insert(position, nal)
    unit.start_codes.insert(position, LONG)
    return unit


def without_messages(units, entries):
    """The entries, told by other signs than messages, count once nothing better has come for long."""
    patience, since = 300, 0
    for unit in units:
        unit.nals = [nal for nal in unit.nals if nal_type(nal) != SEI]
        unit.start_codes = [LONG] * len(unit.nals)
        since = 0 if unit.entry == "idr" else since + 1
        has_sign = id(unit) in entries
        unit.entry = "recovery" if has_sign and since >= patience else unit.entry
    return units


def open_gop_units(folder):
    units = folder.units("open_gop_long.h264")
    entries = {id(u) for u in units if u.entry == "-" and any(nal_type(n) == SPS for n in u.nals)}
    return without_messages(units, entries)


def h265_units(stream):
    """Of a stream with one slice in each picture and no delimiters."""
    units, nals = [], []
    for nal in nals_of(stream):
        nals.append(nal)
        kind = nal[0] >> 1
        if kind < 32:
            is_entry = 16 <= kind <= 23
            units.append(Unit(nals, "idr" if kind in (19, 20) else "recovery" if is_entry else "-"))
            nals = []
    return units


def main():
    folder = Folder(sys.argv[1])
    source = random.Random(14)
    plain = lambda: folder.units("plain.h264")
    other = lambda: h265_units(folder.read("closed_gop.h265"))

    folder.write("fields_as_pictures.h264", fields(folder.units("fields_base.h264")))
    folder.write("garbage.h264", garbage_between(plain(), source))
    folder.write("forbidden_bits.h264", with_forbidden_nals(plain()))
    for zeros, name in ((2, "three"), (3, "four"), (5, "six")):
        folder.write(f"start_codes_of_{name}.h264", with_start_codes(plain(), zeros))
    folder.write("mid_gop.h264", plain()[10:])
    long_message = plain()
    with_message(long_message[7], message(200 * 1024))
    folder.write("long_message.h264", long_message)
    long_unit = plain()
    with_message(long_unit[30], message(10 * 1024 * 1024))
    folder.write("long_unit.h264", long_unit)
    folder.write("sizes.h264", plain() + folder.units("smaller.h264") + plain())
    folder.write("to_h265.h264", plain() + other())
    folder.write("to_h264.h265", other() + plain())
    folder.write("sets_everywhere.h264", sets_everywhere(plain()))
    folder.write("no_messages.h264", open_gop_units(folder))
    folder.write("cut.h264", cut(plain()))


def sets_everywhere(units):
    sets = [nal for nal in units[0].nals if nal_type(nal) in (SPS, PPS)]
    for unit in units:
        slices = [nal for nal in unit.nals if nal_type(nal) in (1, IDR)]
        unit.nals = sets + slices
        unit.start_codes = [LONG] * len(unit.nals)
    return units


def cut(units):
    """The last picture ends in mid-slice."""
    nals = units[-1].nals
    nals[-1] = nals[-1][: len(nals[-1]) // 2]
    return units


if __name__ == "__main__":
    main()
