#!/usr/bin/env python3
"""Writes the golden HashTable files. A second writing of the format, which shares nothing with the library.

The files are committed; run this only when the format changes, in a commit that says so.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
EMPTY = 0xFFFFFFFF


def hash_bytes(key):
    return sum(byte * pow(257, i, 1 << 32) for i, byte in enumerate(key)) % (1 << 32)


def prime_from(n):
    while n < 2 or any(n % d == 0 for d in range(2, n)):
        n += 1
    return n


def length_field(length, width):
    if width:
        return length.to_bytes(width, "little")
    groups = [length >> shift & 127 for shift in range(0, max(length.bit_length(), 1), 7)]
    return bytes(group << 1 | (i + 1 < len(groups)) for i, group in enumerate(groups))


def slots_for(entries, slot_count):
    slots = [EMPTY] * slot_count
    for offset, key in entries:
        at = hash_bytes(key) % slot_count
        while slots[at] != EMPTY:
            at = (at + 1) % slot_count
        slots[at] = offset
    return slots


def write(name, selected, val_len, key_size, used, capacity, slots, data_used, heap):
    header = struct.pack("<IIBIIIQQ", selected, val_len, key_size, used, capacity, len(slots), data_used, len(heap))
    assert len(header) == 37
    with open(os.path.join(HERE, name), "wb") as file:
        file.write(header + struct.pack("<%dI" % len(slots), *slots) + heap)


def build(pairs, val_len, key_size, capacity, factor=None):
    """Inserts (key, value) pairs one by one; returns what write() wants after key_size."""
    heap, entries, size = b"", [], 5 * prime_from(capacity * 3 // 2)
    for key, value in pairs:
        if len(entries) == capacity:
            capacity = int(capacity * factor)
        start = -(-len(heap) // 8) * 8
        needed = start + val_len + len(key) + 5
        if needed > size:
            size = max(needed, size * 3 // 2)
        entries.append((start, key))
        heap = heap.ljust(start, b"\0") + value + length_field(len(key), key_size) + key
    slots = slots_for(entries, prime_from(capacity * 3 // 2))
    return len(entries), capacity, slots, len(heap), heap.ljust(size, b"\0")


write("hashtable_empty.ht", 0, 8, 0, *build([], 8, 0, 5))

# 3 entries, capacity 5, 7 slots, as small as a table with keys gets.
write("hashtable_fixed.ht", 0, 8, 2, *build([(b"a", b"valueone"), (b"bc", b"valuetwo"), (b"", b"value--3")], 8, 2, 5))

# The empty key, keys with zero bytes, all bytes, lengths that need one and two bytes; grown by 1.5 from capacity 5 on.
keys = [b"", b"\0", b"a\0", b"a", bytes(range(256)), b"x" * 127, b"y" * 128]
keys += [b"word%d" % i for i in range(20)]
write("hashtable_grown.ht", 0, 4, 0, *build([(k, struct.pack("<I", i)) for i, k in enumerate(keys)], 4, 0, 5, 1.5))

# The keys "j" to "a" without values, of which the slot order's first three with an odd letter are selected.
used, capacity, slots, data_used, heap = build([(bytes([c]), b"") for c in range(ord("j"), ord("a") - 1, -1)], 0, 0, 11)
chosen = [s for s in slots if s != EMPTY and heap[s + 1] % 2 == 1][:3]
write("hashtable_selected.ht", 1, 0, 0, 3, capacity, chosen + [EMPTY] * (len(slots) - 3), data_used, heap)

# Entries back to back, in a heap without a byte to spare.
heap, entries = b"", []
for key in [b"one", b"two", b"three"]:
    entries.append((len(heap), key))
    heap += b"v" + length_field(len(key), 1) + key
write("hashtable_unaligned.ht", 0, 1, 1, 3, 5, slots_for(entries, 7), len(heap), heap)
