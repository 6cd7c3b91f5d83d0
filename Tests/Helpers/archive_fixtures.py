"""Builds archives for the unpacker tests.

  udif PARTITION OUTPUT   wraps a raw partition image in a UDIF disk image
                          (data fork, block table in an XML plist, "koly" trailer)
  hostile-zip OUTPUT      a ZIP whose entries try to write outside its folder
"""
import plistlib
import struct
import sys
import zipfile


def udif(partition: bytes) -> bytes:
    if len(partition) % 512:
        partition += b"\0" * (512 - len(partition) % 512)
    sectors = len(partition) // 512
    # One raw chunk covering the whole partition, then the terminator.
    chunks = [(1, 0, 0, sectors, 0, len(partition)), (0xFFFFFFFF, 0, sectors, 0, len(partition), 0)]
    mish = struct.pack(">4sIQQQII24s", b"mish", 1, 0, sectors, 0, 0, 0, b"")
    mish += struct.pack(">II128s", 0, 0, b"") + struct.pack(">I", len(chunks))
    for chunk in chunks:
        mish += struct.pack(">IIQQQQ", *chunk)
    name = "whole disk (0)"
    plist = plistlib.dumps({"resource-fork": {"blkx": [
        {"Attributes": "0x0050", "CFName": name, "Data": mish, "ID": "0", "Name": name}]}})
    trailer = struct.pack(">4sIIIQQQQQII16sII128sQQ120sII128sIQ12s",
                          b"koly", 4, 512, 1, 0, 0, len(partition), 0, 0, 1, 1, b"\0" * 16,
                          0, 0, b"", len(partition), len(plist), b"", 0, 0, b"", 1, sectors, b"")
    assert len(trailer) == 512
    return partition + plist + trailer


def entry(name: str, mode: int) -> zipfile.ZipInfo:
    info = zipfile.ZipInfo(name)
    info.create_system = 3  # Unix, so that the mode bits count
    info.external_attr = mode << 16
    return info


def hostile_zip(path: str) -> None:
    with zipfile.ZipFile(path, "w") as archive:
        archive.writestr(entry("inside.txt", 0o100644), "kept")
        archive.writestr(entry("../escaped-dotdot.txt", 0o100644), "out")
        archive.writestr(entry("/tmp/escaped-absolute.txt", 0o100644), "out")
        archive.writestr(entry("link", 0o120777), "/tmp")
        archive.writestr(entry("link/escaped-link.txt", 0o100644), "out")
        archive.writestr(entry("device", 0o020644), "")
        archive.writestr(entry("fifo", 0o010644), "")
        archive.writestr(entry("bad-NAME.txt", 0o100644), "kept")
    # Names are stored twice (local header and central directory); swap the
    # placeholder for bytes that are not UTF-8, of the same length.
    with open(path, "rb") as f:
        data = f.read()
    with open(path, "wb") as f:
        f.write(data.replace(b"bad-NAME.txt", b"bad-\xff\xfe\xfd\xfc.txt"))


if __name__ == "__main__":
    if sys.argv[1] == "udif":
        with open(sys.argv[2], "rb") as f:
            image = udif(f.read())
        with open(sys.argv[3], "wb") as f:
            f.write(image)
    elif sys.argv[1] == "hostile-zip":
        hostile_zip(sys.argv[2])
    else:
        sys.exit(__doc__)
