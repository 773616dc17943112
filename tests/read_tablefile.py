#!/usr/bin/env python3
"""An independent reader of table files, written from the byte layout alone.

Usage: read_tablefile.py FILE

FILE is a table file, plain or gzip-compressed (recognised by its first two
bytes). Prints one JSON object: the header fields, the column records, the key
columns and every row as a list of cell values (null where the presence bit is
clear). Integers, Integer64 and DateTime cells are numbers; Double cells are
numbers (or the strings "nan"/"inf"/"-inf"); Decimal cells are their raw 64-bit
word in hexadecimal; VarChar cells are strings; BoardList cells are the hex of
their bytes. Exits with 1 and a message on stderr for a malformed file.
"""
import gzip
import json
import math
import struct
import sys

MAGIC = 0x20151002
CELL_SIZES = {1: 4, 2: 8, 3: 8, 4: 8, 6: 8, 7: 404}


class Reader:
    def __init__(self, data):
        self.data = data
        self.pos = 0

    def take(self, n):
        if n < 0 or self.pos + n > len(self.data):
            raise ValueError("the data ends at byte %d, %d more wanted" % (self.pos, n))
        chunk = self.data[self.pos:self.pos + n]
        self.pos += n
        return chunk

    def unpack(self, fmt):
        return struct.unpack(fmt, self.take(struct.calcsize(fmt)))[0]

    def string(self):
        length = self.unpack(">I")
        if length == 0xFFFFFFFF:
            return None
        if length % 2:
            raise ValueError("odd string length %d" % length)
        return self.take(length).decode("utf-16-be")


def cell_size(column_type, length):
    if column_type == 5:
        return 2 * length
    if column_type not in CELL_SIZES:
        raise ValueError("unknown type %d" % column_type)
    return CELL_SIZES[column_type]


def cell_value(column_type, raw):
    if column_type == 1:
        return struct.unpack("<i", raw)[0]
    if column_type in (2, 6):
        return struct.unpack("<q", raw)[0]
    if column_type == 3:
        value = struct.unpack("<d", raw)[0]
        if math.isnan(value):
            return "nan"
        if math.isinf(value):
            return "inf" if value > 0 else "-inf"
        return value
    if column_type == 4:
        return "%016x" % struct.unpack("<Q", raw)[0]
    if column_type == 5:
        text = raw.decode("utf-16-le")
        end = text.find("\0")
        return text if end < 0 else text[:end]
    return raw.hex()


def read_table(data):
    r = Reader(data)
    header = {
        "magic": r.unpack(">i"),
        "columnCount": r.unpack(">h"),
        "rowCount": r.unpack(">i"),
        "rowLength": r.unpack(">i"),
        "flagBytes": r.unpack(">i"),
    }
    if header["magic"] != MAGIC:
        raise ValueError("bad magic 0x%08x" % (header["magic"] & 0xFFFFFFFF))
    columns = []
    for _ in range(header["columnCount"]):
        column = {"name": r.string(), "title": r.string(), "description": r.string()}
        column["length"] = r.unpack(">i")
        column["type"] = r.unpack(">b")
        column["size"] = r.unpack(">i")
        column["nullable"] = r.unpack(">?")
        column["auxFlag"] = r.unpack(">?")
        if column["size"] != cell_size(column["type"], column["length"]):
            raise ValueError("column %s: size %d disagrees with its type" %
                             (column["name"], column["size"]))
        columns.append(column)
    keys = [r.string() for _ in range(r.unpack(">i"))]
    if header["rowLength"] != sum(c["size"] for c in columns):
        raise ValueError("row length disagrees with the columns")
    if header["flagBytes"] != (len(columns) + 7) // 8:
        raise ValueError("flag bytes disagree with the columns")
    rows = []
    if columns:
        for _ in range(header["rowCount"]):
            cells = [r.take(c["size"]) for c in columns]
            flags = r.take(header["flagBytes"])
            rows.append([cell_value(c["type"], cell) if flags[i // 8] >> (i % 8) & 1 else None
                         for i, (c, cell) in enumerate(zip(columns, cells))])
    header.update(columns=columns, keyColumns=keys, rows=rows, trailing=len(data) - r.pos)
    return header


def main():
    if len(sys.argv) != 2:
        sys.stderr.write("usage: read_tablefile.py FILE\n")
        return 2
    with open(sys.argv[1], "rb") as f:
        data = f.read()
    try:
        if data[:2] == b"\x1f\x8b":
            data = gzip.decompress(data)
        print(json.dumps(read_table(data)))
    except (ValueError, OSError, EOFError, UnicodeDecodeError) as e:
        sys.stderr.write("read_tablefile.py: %s\n" % e)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
