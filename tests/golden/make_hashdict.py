#!/usr/bin/env python3
"""Makes the golden images of the perfect-hash dictionary, by a route of its own.

This is the plain model of the construction: linked lists of edge slots, one bit array as a Python integer, and the C
library's random() written out. It shares no code with the library; the tests compare the library's images with these
files byte for byte. Run it to see that the committed files are what it makes:

    tests/golden/make_hashdict.py --check      compare the files in this directory
    tests/golden/make_hashdict.py              write them
"""

import os
import struct
import sys


class Random:
    """The C library's random() after srandom(seed): r[i] = r[i-3] + r[i-31], the low bit dropped."""

    def __init__(self, seed):
        state = [seed or 1]
        for _ in range(30):
            # seed * 16807 modulo 2^31 - 1 by Schrage's division, on signed 32-bit words
            word = state[-1]
            high, low = int(word / 127773), word - int(word / 127773) * 127773
            word = 16807 * low - 2836 * high
            state.append(word + 2147483647 if word < 0 else word)
        # The generator starts three words in: the first three of the state count as the latest.
        self.words = [word & 0xFFFFFFFF for word in state[3:] + state[:3]]
        for _ in range(310):
            self.next()

    def next(self):
        word = (self.words[-3] + self.words[-31]) & 0xFFFFFFFF
        self.words.append(word)
        self.words = self.words[-31:]
        return word >> 1


def pack(values, width):
    """Entry v in bits v*width and up, in 64-bit words."""
    bits = 0
    for v, value in enumerate(values):
        bits |= value << (v * width)
    return bits.to_bytes((len(values) * width + 63) // 64 * 8, "little")


def vertices(key, rank, coef, nchars, m):
    a = b = c = 0
    for i, byte in enumerate(key):
        triple = (i * nchars + rank[byte]) * 3
        a += coef[triple]
        if a >= m:
            a -= m
        b += coef[triple + 1]
        if b >= m - 1:
            b -= m - 1
        c += coef[triple + 2]
        if c >= m - 2:
            c -= m - 2
        if c >= m - 2:
            c -= m - 2
    second = a + 1 + b
    if second >= m:
        second -= m
    third = a + 1 + c + (1 if b <= c else 0)
    if third >= m:
        third -= m
    return a + 1, second + 1, third + 1


class Graph:
    """Incidence lists of edge slots e + k * (n + 1); slot % (n + 1) is the edge."""

    def __init__(self, triples, m):
        n = len(triples)
        self.stride = n + 1
        self.triples = [None] + triples
        self.lists = [[] for _ in range(m + 1)]
        for e in range(1, n + 1):
            for k in range(3):
                self.lists[self.triples[e][k]].insert(0, e + k * self.stride)
        self.removed = [True] + [False] * n
        self.order = []
        for v in range(1, m + 1):
            e = self.singleton(v)
            if not self.removed[e]:
                self.delete_all(v, e)

    def singleton(self, v):
        return self.lists[v][0] % self.stride if len(self.lists[v]) == 1 else 0

    def delete_all(self, v, e):
        stack = [(e, v, 0)]
        while stack:
            e, came_from, status = stack.pop()
            if status == 0:
                assert not self.removed[e]
                self.removed[e] = True
                self.order.append(e)
                for u in self.triples[e]:
                    self.lists[u] = [slot for slot in self.lists[u] if slot % self.stride != e]
            for k in range(status, 3):
                u = self.triples[e][k]
                if u == came_from:
                    continue
                other = self.singleton(u)
                if self.removed[other]:
                    continue
                if k < 2:
                    stack.append((e, came_from, k + 1))
                stack.append((other, u, 0))
                break


def build(keys, values=None, nbits=0, probe=0):
    """The image, its header fields in a dictionary, and the number of attempts."""
    n = len(keys)
    random = Random(0)
    m = int(n * 1.25) + 5
    largest = 2**nbits - 1 if values is not None else n
    width = max(1, largest.bit_length())
    used = sorted({byte for key in keys for byte in key})
    rank = [used.index(byte) if byte in used else -1 for byte in range(256)]
    maxlen = max([len(key) for key in keys], default=0)

    attempts = 0
    while True:
        coef = [random.next() % m for _ in range(maxlen * len(used) * 3)]
        attempts += 1
        triples = [vertices(key, rank, coef, len(used), m) for key in keys]
        graph = Graph(triples, m)
        if len(graph.order) == n:
            break

    fun = [None] * (m + 1)
    for e in reversed(graph.order):
        target = values[e - 1] if values is not None else e - 1
        chosen = None
        for v in triples[e - 1]:
            if fun[v] is None:
                fun[v] = 0
                chosen = v
            else:
                target ^= fun[v]
        fun[chosen] = target
    fun = pack([value or 0 for value in fun], width)

    code = b""
    if probe > 0:
        mask = 2 ** (8 * probe) - 1
        for key in keys:
            p = 0
            for byte in key:
                p = (p * 257 + byte) & mask
            code += p.to_bytes(probe, "little")
        code = code.ljust((probe * n * 8 * probe + 63) // 64 * 8, b"\0")

    ranks = struct.pack("<256h", *rank)
    coefs = struct.pack("<%dI" % len(coef), *coef)
    coefs = coefs.ljust((len(coefs) + 7) // 8 * 8, b"\0")
    numbers = (n, m, maxlen, width, len(used), probe, len(ranks), len(coefs), len(fun), len(code))
    image = struct.pack("<IIHHHHQQQQ", *numbers) + ranks + coefs + fun + code
    return image, numbers, attempts


def swapped(image):
    """Every number in the opposite byte order; probe codes are bytes."""
    numbers = struct.unpack_from("<IIHHHHQQQQ", image)
    rank_size, coef_size, fun_size = numbers[6:9]
    result, at = struct.pack(">IIHHHHQQQQ", *numbers), 48
    for width, size in ((2, rank_size), (4, coef_size), (8, fun_size)):
        for element in range(at, at + size, width):
            result += image[element : element + width][::-1]
        at += size
    return result + image[at:]


NUMBERS = [
    "null", "eins", "zwei", "drei", "vier", "f\u00fcnf", "sechs", "sieben", "acht", "neun", "zehn", "elf", "zw\u00f6lf",
    "", "dreizehn", "vierzehn", "f\u00fcnfzehn", "sechzehn", "siebzehn",
]  # fmt: skip


def images():
    words = [word.encode() for word in NUMBERS]
    squares = [i * i * 5 % 2048 for i in range(len(words))]
    every_byte = [bytes([byte]) for byte in range(256)]
    yield "hashdict-plain.dic", build(words)
    yield "hashdict-probe3.dic", build(words, probe=3)
    yield "hashdict-probe8.dic", build(words[:5], probe=8)
    yield "hashdict-values.dic", build(words, values=squares, nbits=11)
    yield "hashdict-values32.dic", build(words[:4], values=[0, 0xFFFFFFFF, 0x80000001, 0xFFFFFFFE], nbits=32)
    image, numbers, attempts = build(words, probe=3)
    yield "hashdict-swapped.dic", (swapped(image), numbers, attempts)
    yield "hashdict-odd.dic", build([b"abc"])
    yield "hashdict-empty.dic", build([])
    yield "hashdict-emptykey.dic", build([b""])
    yield "hashdict-bytes.dic", build(every_byte, probe=1)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    check = "--check" in sys.argv[1:]
    wrong = 0
    for name, (image, numbers, attempts) in images():
        path = os.path.join(here, name)
        if check:
            with open(path, "rb") as file:
                same = file.read() == image
            wrong += not same
            print("%-24s %5d bytes  %s" % (name, len(image), "same" if same else "DIFFERENT"))
        else:
            with open(path, "wb") as file:
                file.write(image)
            print("%-24s %5d bytes  attempts %d  header %s" % (name, len(image), attempts, numbers))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
