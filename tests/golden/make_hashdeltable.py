#!/usr/bin/env python3
"""Makes the golden images of HashDelTable from a model of its own: lists and dictionaries, no code of the library.

Run once, when the format was settled. The tests compare with the files beside this script and never write them.
"""

import os
import struct

EMPTY, TOMBSTONE = 0xFFFFFFFF, 0xFFFFFFFE


def prime(n):
    while n < 2 or any(n % d == 0 for d in range(2, int(n**0.5) + 1)):
        n += 1
    return n


def hash_bytes(key):
    return sum(byte * 257**i for i, byte in enumerate(key)) % 2**32


class Table:
    def __init__(self, capacity, val_len, key_size):
        self.capacity, self.val_len, self.key_size = max(capacity, 5), val_len, key_size
        self.slots = [EMPTY] * prime(self.capacity * 3 // 2)
        self.heap, self.slot_of = b"", {}
        self.keys = self.deleted = self.selected = 0

    def length_field(self, length):
        if self.key_size:
            return length.to_bytes(self.key_size, "little")
        groups = [length & 127]
        while length > 127:
            length >>= 7
            groups.append(length & 127)
        return bytes(g << 1 | (i + 1 < len(groups)) for i, g in enumerate(groups))

    def add(self, key, value):
        assert len(value) == self.val_len and 2 * self.deleted + self.keys < self.capacity
        self.heap += b"\0" * (-len(self.heap) % 8)
        n = len(self.slots)
        slot = hash_bytes(key) % n
        step = n - 2 - slot % (n - 2)
        while self.slots[slot] != EMPTY:
            slot = (slot + step) % n
        self.slots[slot] = len(self.heap)
        self.slot_of[key] = slot
        self.keys += 1
        self.heap += value + self.length_field(len(key)) + key

    def remove(self, key):
        self.slots[self.slot_of.pop(key)] = TOMBSTONE
        self.deleted += 1
        self.keys -= 1

    def choose(self, keys):
        chosen = [self.slots[self.slot_of[key]] for key in keys]
        self.slots = chosen + [EMPTY] * (len(self.slots) - len(chosen))
        self.keys, self.selected = len(chosen), 1

    def write(self, name):
        n = len(self.slots)
        image = struct.pack("<I", len(self.heap)) + self.heap
        image += struct.pack("<4I", n, self.capacity, self.keys, self.deleted) + struct.pack("<%dI" % n, *self.slots)
        image += struct.pack("<IBB", self.val_len, self.key_size, self.selected)
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), name), "wb") as f:
            f.write(image)


Table(5, 8, 0).write("hashdeltable-empty.img")

# Keys removed, the empty one among them, and one of the removed inserted again.
table = Table(10, 4, 2)
for number, key in enumerate([b"alpha", b"beta", b"", b"gamma", b"delta", b"epsilon"]):
    table.add(key, b"v%d.." % number)
table.remove(b"beta")
table.remove(b"")
table.add(b"beta", b"agai")
table.write("hashdeltable-tombstones.img")

# Every width of the key length that is quick to make; all keys but the empty one are chosen, the longest first.
table = Table(5, 1, 0)
for key, value in [(b"x" * 127, b"1"), (b"y" * 128, b"2"), (b"", b"3"), (b"z" * 16384, b"4")]:
    table.add(key, value)
table.choose([b"z" * 16384, b"y" * 128, b"x" * 127])
table.write("hashdeltable-selected.img")
