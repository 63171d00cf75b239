#!/usr/bin/env python3
"""Holds the CUDA image to what the driver path needs: the module carries its
bytes; its PTX targets the PTX architecture and names the kernels as the
driver looks them up, with as many parameters as its launches pass; a fat binary holds that PTX and ELF for the SASS
architecture, nothing else. Arguments: image, module, PTX arch, [SASS arch]."""
import re
import struct
import sys

image_path, module_path, ptx_arch = sys.argv[1], sys.argv[2], int(sys.argv[3])
sass_arch = int(sys.argv[4]) if len(sys.argv) > 4 else None
image = open(image_path, "rb").read()
errors = []
if image not in open(module_path, "rb").read():
    errors.append("the module does not hold the image's bytes")

entries = []  # (kind, arch, payload): kind 1 PTX, 2 ELF
if image.startswith(struct.pack("<I", 0xBA55ED50)):
    _, _, header, size = struct.unpack_from("<IHHQ", image)
    at = header
    while at < header + size:
        kind, _, entry_header, payload = struct.unpack_from("<HHIQ", image, at)
        arch = struct.unpack_from("<I", image, at + 28)[0]
        entries.append((kind, arch, image[at + entry_header:at + entry_header + payload]))
        at += entry_header + payload
else:
    entries.append((1, ptx_arch, image))

want = [(1, ptx_arch)] + ([(2, sass_arch)] if sass_arch else [])
if sorted((k, a) for k, a, _ in entries) != want:
    errors.append(f"images {[(k, a) for k, a, _ in entries]}, wanted {want} (kind 1 PTX, 2 ELF)")
for kind, arch, payload in entries:
    if kind == 1:
        text = payload.decode("ascii", "replace")
        if not re.search(rf"^\.target sm_{ptx_arch}\b", text, re.M):
            errors.append(f"the PTX does not target sm_{ptx_arch}")
        for name, count in (("MainKernel", 13), ("ResizeKernel", 11), ("StackKernel", 25)):
            entry = re.search(rf"\.entry {name}\((.*?)\)", text, re.S)
            if not entry:
                errors.append(f"the PTX has no entry {name} under its C name")
            elif entry.group(1).count(".param") != count:
                errors.append(f"{name} takes {entry.group(1).count('.param')} parameters, the driver passes {count}")
    elif not payload.startswith(b"\x7fELF"):
        errors.append(f"the sm_{arch} image is not ELF")

for e in errors:
    print(e)
sys.exit(1 if errors else 0)
