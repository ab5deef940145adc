#!/usr/bin/env python3
"""Writes seeds for handle_audit_msg_fuzzer from the recordings: usage: make_seeds.py RECORDINGS SEEDS

Of each recording the first group of every shape is taken, a shape being the series of its records'
types, and groups that are too long to be changed fruitfully are left out. What a kernel splits is
always long, so short split arguments are made up.
"""
import gzip
import pathlib
import struct
import sys

# In the order of the target's table.
TYPES = [1300, 1309, 1302, 1306, 1320, 1000, 1006, 1307]
SYSCALL, EXECVE, EOE, STATUS = 1300, 1309, 1320, 1000
MOST_BYTES = 2500
MOST_BYTES_OF_LISTS = 9000  # split arguments and lists in several records are long by nature

SPLIT_LISTS = [
    ['argc=2 a0_len=6 a0[0]="ab" a0[1]="cd" a0[2]="ef" a1="x"'],
    ['argc=2 a0_len=4 a0[0]=6162 a1_len=4 a1[0]=63', 'a1[1]=640 a1[2]=65'],
    ['argc=3 a0_len=9 a0[0]="ab" a0[1]=" a0[2]=" a0[3]="" a0[4]="cd" a0[5]=', 'a2="x"'],
    ['argc=3 a0="x" a2="z" a1_len=3 a1[0]="abcdef" a1[1]="g"'],
]


def records(path):
    with (gzip.open if path.suffix == ".gz" else open)(path, "rb") as lines:
        for line in lines:
            kind, _, payload = line.rstrip(b"\n").partition(b"\t")
            if payload.startswith(b"hex:"):
                payload = bytes.fromhex(payload[4:].decode())
            yield int(kind), payload


def encode(group):
    return b"".join(
        struct.pack("<BBH", TYPES.index(kind), 0, len(payload)) + payload for kind, payload in group)


def groups(path):
    """The first short group of every shape; a group is the records of one serial."""
    opened, shapes = {}, set()
    for kind, payload in records(path):
        header = payload.partition(b"): ")[0]
        if kind == SYSCALL and b'_rule"' in payload:
            opened[header] = []
        if kind in TYPES and header in opened:
            opened[header].append((kind, payload))
        if kind == EOE and header in opened:
            group = opened.pop(header)
            shape = tuple(kind for kind, _ in group)
            most = MOST_BYTES_OF_LISTS if shape.count(EXECVE) > 1 else MOST_BYTES
            if shape not in shapes and len(encode(group)) <= most:
                shapes.add(shape)
                yield group


def main():
    recordings, seeds = map(pathlib.Path, sys.argv[1:])
    seeds.mkdir(parents=True, exist_ok=True)
    simple = recordings / "exec-simple.rec"
    first, *_, last = next(groups(simple))
    header = first[1].partition(b"): ")[0] + b"): "
    for number, lists in enumerate(SPLIT_LISTS):
        middle = [(EXECVE, header + fields.encode()) for fields in lists]
        (seeds / f"split-{number}").write_bytes(encode([first, *middle, last]))
    status = next(record for record in records(simple) if record[0] == STATUS)
    (seeds / "status").write_bytes(encode([status]))
    for path in sorted(recordings.glob("*.rec*")):
        if path.name.startswith("mixed"):
            continue  # nothing that the others do not have
        for number, group in enumerate(groups(path)):
            (seeds / f"{path.name.split('.')[0]}-{number}").write_bytes(encode(group))


if __name__ == "__main__":
    main()
