#!/usr/bin/env python3
"""Sets DllCharacteristics bit 0x0001 in a PE file, in place.

The loader runs a DLL's entry point only when that bit asks for it; the
linker never sets it, so the test DLLs whose entry points the tests observe
get it here after linking."""
import struct
import sys


def main(path):
    with open(path, "r+b") as f:
        data = bytearray(f.read())
        lfanew = struct.unpack_from("<I", data, 0x3C)[0]
        if data[lfanew:lfanew + 4] != b"PE\0\0":
            sys.exit(f"{path}: no NT headers")
        at = lfanew + 0x5E
        flags = struct.unpack_from("<H", data, at)[0] | 0x0001
        struct.pack_into("<H", data, at, flags)
        f.seek(0)
        f.write(data)


if __name__ == "__main__":
    main(sys.argv[1])
