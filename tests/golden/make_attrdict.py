#!/usr/bin/env python3
"""Makes the golden pairs of the attribute dictionary from the words of the format alone.

    tests/golden/make_attrdict.py --check      compare the files in this directory
    tests/golden/make_attrdict.py              write them
"""

import os
import struct
import sys


def pair(strings, order="<"):
    """The index and the data; `order` is that of struct."""
    index, data = b"", b""
    for identifier, string in enumerate(strings):
        if identifier % 4 == 0:
            index += struct.pack(order + "I", len(data))
        data += bytes([len(string)]) + string
    return index + struct.pack(order + "I", len(strings)), data


ELEVEN = [b"", b"a", b"\0", b"", b"\xff" * 255, b"attribute", b"", b"two\0words", b"x" * 128, b"", b"end"]
MANY = [bytes((identifier + at) % 256 for at in range(identifier * 37 % 256)) for identifier in range(123)]

PAIRS = {
    "attrdict-empty": pair([]),
    "attrdict-four": pair([b"one", b"two", b"three", b"four"]),
    "attrdict-five": pair([b"one", b"two", b"three", b"four", b"five"]),
    "attrdict-eleven": pair(ELEVEN),
    "attrdict-swapped": pair(ELEVEN, ">"),
    "attrdict-many": pair(MANY),
}


def main():
    directory = os.path.dirname(os.path.abspath(__file__))
    wrong = []
    for name, contents in PAIRS.items():
        for suffix, expected in zip((".idx", ".dat"), contents):
            path = os.path.join(directory, name + suffix)
            if "--check" in sys.argv[1:]:
                with open(path, "rb") as f:
                    if f.read() != expected:
                        wrong.append(name + suffix)
            else:
                with open(path, "wb") as f:
                    f.write(expected)
    for name in wrong:
        print(name + " is not what the format says")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
