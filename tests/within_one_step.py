"""WHAT A.raw B.raw: 8-bit frames A equal 16-bit little-endian frames B within one 8-bit step."""
import struct
import sys

what, a, b = sys.argv[1], open(sys.argv[2], 'rb').read(), open(sys.argv[3], 'rb').read()
if len(a) * 2 != len(b):
    sys.exit(f"FAIL: {what}: {len(a)} bytes against a reference of {len(b) // 2}")
ref = struct.unpack(f'<{len(b) // 2}H', b)
worst = max(abs(x - round(y / 257)) for x, y in zip(a, ref))
if worst > 1:
    sys.exit(f"FAIL: {what}: a value differs by {worst} steps")
