#!/usr/bin/env python3
"""The Windows module, checked as a binary and run under Wine.

  wine_smoke.py binary NATIVE_BUILD SOURCE_DIR
  wine_smoke.py wine NATIVE_BUILD WORK_DIR

`binary`: the module exports the host's four symbols and nothing else,
imports system DLLs and the OpenCL loader only, and carries the property list
and the about picture as resources, byte for byte what the native build has.

`wine`: the Windows driver loads the Windows module by LoadLibrary under Wine
and renders on Wine's OpenCL; the render equals the native module's, and the
log appears under Wine's temporary folder by the Windows path rules, with the
debugger channel receiving what the file receives. Exits 77 (skipped) when
Wine cannot start here.
"""
import array
import os
import re
import shutil
import struct
import subprocess
import sys
import zlib

SKIP = 77
EXPORTS = {"EffectMain", "PluginDataEntryFunction", "xGPUFilterEntry", "NvOptimusEnablementCuda"}
SYSTEM_DLLS = {"kernel32.dll", "msvcrt.dll", "user32.dll", "advapi32.dll", "d3d9.dll", "ucrtbase.dll"}
OBJDUMP = "x86_64-w64-mingw32-objdump"


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def check(condition, message):
    if not condition:
        fail(message)


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kw)


# ---- binary ------------------------------------------------------------------

def pe_exports_imports(path):
    text = run([OBJDUMP, "-p", path]).stdout
    imports = set(m.lower() for m in re.findall(r"DLL Name: (\S+)", text))
    table = text.split("[Ordinal/Name Pointer] Table", 1)
    check(len(table) == 2, "no export table in " + path)
    exports = set(re.findall(r"^\s+\[\s*\d+\] (\S+)$", table[1].split("\n\n", 1)[0], re.M))
    return exports, imports


def resources(path):
    """(type, name, language) -> bytes, walked from the module's .rsrc section."""
    data = open(path, "rb").read()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    sections, optional = struct.unpack_from("<H", data, pe + 6)[0], struct.unpack_from("<H", data, pe + 20)[0]
    table = pe + 24 + optional
    for k in range(sections):
        name, _, rva, _, raw = struct.unpack_from("<8sIIII", data, table + 40 * k)
        if name.rstrip(b"\0") == b".rsrc":
            break
    else:
        fail("no .rsrc section in " + path)

    def ident(entry):  # a number, or an offset to a counted UTF-16 string
        if entry & 0x80000000 == 0:
            return entry
        at = raw + (entry & 0x7FFFFFFF)
        n = struct.unpack_from("<H", data, at)[0]
        return data[at + 2:at + 2 + 2 * n].decode("utf-16-le")

    def walk(directory, path):
        named, numbered = struct.unpack_from("<HH", data, raw + directory + 12)
        for k in range(named + numbered):
            entry, target = struct.unpack_from("<II", data, raw + directory + 16 + 8 * k)
            if target & 0x80000000:
                yield from walk(target & 0x7FFFFFFF, path + (ident(entry),))
            else:
                at, size = struct.unpack_from("<II", data, raw + target)
                yield path + (ident(entry),), data[raw + at - rva:raw + at - rva + size]

    return dict(walk(0, ()))


def binary(native, source):
    aex = os.path.join(native, "windows", "TremorDistiller.aex")
    check(os.path.isfile(aex), "no module at " + aex)
    exports, imports = pe_exports_imports(aex)
    check(exports == EXPORTS, "exports are %s" % sorted(exports))
    stray = imports - SYSTEM_DLLS - {"opencl.dll"}
    check(not stray and "opencl.dll" in imports, "imports are %s" % sorted(imports))
    res = resources(aex)
    pipl = open(os.path.join(native, "TremorDistiller.pipl"), "rb").read()
    about = open(os.path.join(source, "plugin", "Resources", "About.png"), "rb").read()
    check(res.get(("PIPL", 16000, 1033)) == pipl, "resource PIPL 16000 (1033) differs from the property list: %s"
          % list(res))
    check(any(k[:2] == (255, 254) and v == about for k, v in res.items()), "no about picture as resource 255/254")
    print("exports %s; imports %s; resources %s" % (sorted(exports), sorted(imports), list(res)))


# ---- wine --------------------------------------------------------------------

def write_png(path, w, h, pixel):
    rows = b"".join(b"\x00" + bytes(c for x in range(w) for c in pixel(x, y)) for y in range(h))

    def chunk(tag, body):
        return struct.pack(">I", len(body)) + tag + body + struct.pack(">I", zlib.crc32(tag + body) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) +
                chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def floats(path):
    values = array.array("f")
    values.frombytes(open(path, "rb").read())
    return values


def DebugRecords(stderr):
    """What OutputDebugStringA received, one record per item, as Wine's
    debugstr channel prints it (C escapes, a record's own line feed last)."""
    records = re.findall(r'OutputDebugStringA "((?:[^"\\]|\\.)*)"', stderr)
    return [r.encode("ascii").decode("unicode_escape").rstrip("\n") for r in records]


def wine(native, work):
    wine_exe = shutil.which("wine")
    if not wine_exe:
        print("skipped: no wine on PATH (Debian: apt-get install wine wine64)")
        sys.exit(SKIP)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    env = dict(os.environ, WINEPREFIX=os.path.join(native, "windows", "wineprefix"), WINEDEBUG="-all,+debugstr",
               WINEDLLOVERRIDES="mscoree,mshtml=")
    started = run([wine_exe, "cmd", "/c", "exit"], env=env, cwd=work)
    if started.returncode != 0:
        print("skipped: Wine cannot start here: " + started.stderr.strip().splitlines()[-1:][0]
              if started.stderr.strip() else "skipped: Wine cannot start here")
        sys.exit(SKIP)

    # The module alone in a folder: the property list and the picture can only
    # come from its resources.
    shutil.copy(os.path.join(native, "windows", "TremorDistiller.aex"), work)
    shutil.copy(os.path.join(native, "windows", "tremor-frames.exe"), work)
    frames = []
    for k in range(6):
        frames.append("f%d.png" % k)
        write_png(os.path.join(work, frames[-1]), 96, 64,
                  lambda x, y, k=k: ((x * 3 + k * 17) % 256, (y * 4 + k * k) % 256, (x * y + k * 29) % 256))

    temps = os.path.join(env["WINEPREFIX"], "drive_c", "users")
    for user in os.listdir(temps) if os.path.isdir(temps) else []:
        shutil.rmtree(os.path.join(temps, user, "Temp", "Harbour Lantern Lab"), ignore_errors=True)

    # Default settings, and a second stack with other modes, once on each platform.
    settings = [[], ["--set", "19=2", "--set", "20=2", "--set", "22=1", "--set", "23=3", "--set", "5=4"]]
    debug = []
    for n, extra in enumerate(settings):
        win = run([wine_exe, "tremor-frames.exe", "TremorDistiller.aex", "win%d.f32" % n] + frames + extra,
                  env=env, cwd=work)
        check(win.returncode == 0, "Windows render %d failed:\n%s%s" % (n, win.stdout, win.stderr))
        lin = run([os.path.join(native, "tremor-frames"), os.path.join(native, "TremorDistiller.so"),
                   "lin%d.f32" % n] + frames + extra, cwd=work)
        check(lin.returncode == 0, "Linux render %d failed:\n%s%s" % (n, lin.stdout, lin.stderr))
        for line in ("property list: 294 bytes, entry EffectMain", "about picture: 250x70",
                     "rendered: 96x64 by PF_Cmd_SMART_RENDER_GPU"):
            check(line in win.stdout, "Windows driver did not say %r:\n%s" % (line, win.stdout))
        a, b = floats(os.path.join(work, "win%d.f32" % n)), floats(os.path.join(work, "lin%d.f32" % n))
        check(len(a) == len(b) == 96 * 64 * 4, "render sizes %d and %d" % (len(a), len(b)))
        # One OpenCL device behind both: the same program on the same values.
        worst = max(abs(x - y) / max(1.0, abs(y)) for x, y in zip(a, b))
        check(worst <= 1e-6, "render %d: Windows and Linux differ by %g" % (n, worst))
        check(max(b) > 0, "render %d is black: nothing to compare" % n)
        debug.append(DebugRecords(win.stderr))
    logs = [os.path.join(temps, u, "Temp", "Harbour Lantern Lab", "com.hll.tremordistiller.log")
            for u in os.listdir(temps)]
    logs = [p for p in logs if os.path.isfile(p)]
    check(len(logs) == 1, "log files under Wine's temporary folders: %s" % logs)
    lines = [re.sub(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d ", "", line) for line in open(logs[0]).read().splitlines()]
    # The second run deleted the first run's log: it opens with "Welcome!".
    check(lines[:4] == ["HLL :: Welcome!", "HLL :: Tremor Distiller, v1.0.0 in AE13.28",
                        "HLL :: Initialized new device: OpenCL", lines[3]], "log opens with %s" % lines[:4])
    # No Direct3D 9 adapter under headless Wine: no adapter lines, an empty name.
    check(re.fullmatch(r"HLL :: GPU: , OS: \d+\.\d+", lines[3]), "identity line is %r" % lines[3])
    check(not any("GPU DeviceName" in line for line in lines), "adapter lines without Direct3D")
    # The debugger channel gets what the file gets, with the Windows path of
    # the folder that the first run made.
    check(debug[1] == lines, "debugger channel %s, file %s" % (debug[1], lines))
    check(re.fullmatch(r'HLL :: Folder "C:\\users\\[^\\]+\\Temp\\Harbour Lantern Lab\\" doesn\'t exist\. Creating\.\.\.',
                       debug[0][0]), "the first run's first record is %r" % debug[0][:1])
    print("log %s:\n  %s" % (logs[0], "\n  ".join(lines)))


if __name__ == "__main__":
    mode, native, other = sys.argv[1:4]
    binary(native, other) if mode == "binary" else wine(native, other)
