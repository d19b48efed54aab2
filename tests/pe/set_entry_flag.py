#!/usr/bin/env python3
"""Sets DllCharacteristics bit 0x0001 of each PE file given, in place: the
loader runs a DLL's entry point only when that bit asks for it, and the linker
never sets it."""
import struct
import sys

for path in sys.argv[1:]:
    with open(path, "r+b") as f:
        data = f.read()
        lfanew = struct.unpack_from("<I", data, 0x3C)[0]
        if data[lfanew:lfanew + 4] != b"PE\0\0":
            sys.exit(f"{path}: no NT headers")
        f.seek(lfanew + 0x5E)
        f.write(struct.pack("<H", struct.unpack_from("<H", data, lfanew + 0x5E)[0] | 0x0001))
