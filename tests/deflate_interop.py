#!/usr/bin/env python3
"""Compresses or decompresses stdin to stdout with Python's zlib.

Usage: deflate_interop.py compress|decompress WINDOW_BITS
(15: zlib stream, 31: gzip stream, -15: raw deflate data). Decompression
fails unless the input holds one complete stream.
"""
import sys
import zlib

mode, window_bits = sys.argv[1], int(sys.argv[2])
data = sys.stdin.buffer.read()
if mode == "compress":
    compressor = zlib.compressobj(6, zlib.DEFLATED, window_bits)
    out = compressor.compress(data) + compressor.flush()
else:
    decompressor = zlib.decompressobj(window_bits)
    out = decompressor.decompress(data) + decompressor.flush()
    if not decompressor.eof:
        sys.exit("incomplete stream")
sys.stdout.buffer.write(out)
