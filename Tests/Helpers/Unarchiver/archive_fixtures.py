"""Builds archives for the unpacker tests.

  udif PARTITION OUTPUT   wraps a raw partition image in a UDIF disk image
                          (data fork, block table in an XML plist, "koly" trailer)
  volume-image FOLDER OUTPUT
                          a UDIF image of an ISO 9660 volume with the
                          folder's content (the folder is removed)
  hostile-zip OUTPUT      a ZIP whose entries try to write outside its folder
  hostile-set FOLDER OUTSIDE
                          every hostile archive and disk image of the
                          unpacker's table, into FOLDER; OUTSIDE is the
                          absolute path of a folder the archives aim at from
                          outside their own (device nodes need root)
  mode-set FOLDER OUTSIDE ZIP archives whose modes and links only their
                          central directories record, as Python writes them
  directory-set FOLDER    ZIP archives whose central directories lie
"""
import io
import os
import plistlib
import random
import struct
import subprocess
import sys
import tarfile
import warnings
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


def streamed(name: str, mode: int) -> zipfile.ZipInfo:
    """An entry whose type and mode reach a streaming reader: they are in the
    central directory, which bsdtar never reads from a pipe, and again in the
    local header's 'xl' extra field (flags: version made by, external
    attributes), which it does."""
    info = entry(name, mode)
    info.extra = struct.pack("<HHBBBI", 0x6C78, 7, 0x05, 0, 3, mode << 16)
    return info


def write_zip(path: str, entries, compression=zipfile.ZIP_STORED, level=None) -> None:
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # duplicate names are the point of one fixture
        with zipfile.ZipFile(path, "w") as archive:
            for name, mode, content in entries:
                archive.writestr(streamed(name, mode), content, compression, level)


FILE, FOLDER, LINK = 0o100644, 0o040755, 0o120777


def tar_member(name: str, kind: bytes, **fields) -> tarfile.TarInfo:
    info = tarfile.TarInfo(name)
    info.type = kind
    for key, value in fields.items():
        setattr(info, key, value)
    return info


def hostile_tar(outside: str, first_name: str = "evil") -> bytes:
    """A tar stream with what only tar can carry: a device node of a chosen
    major and minor, a hard link to a file outside, a set-user-ID file."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        archive.addfile(tar_member(first_name, tarfile.REGTYPE, size=4, mode=0o4755), io.BytesIO(b"evil"))
        archive.addfile(tar_member("mem", tarfile.CHRTYPE, devmajor=1, devminor=1, mode=0o666))
        archive.addfile(tar_member("hard", tarfile.LNKTYPE, linkname=outside + "/fennick-escape-hard"))
    return buffer.getvalue()


def truncations(folder: str) -> None:
    path = os.path.join(folder, "whole.zip")
    rng = random.Random(7)
    write_zip(path, [("one.bin", FILE, rng.randbytes(3000)), ("two.bin", FILE, rng.randbytes(3000))],
              zipfile.ZIP_DEFLATED)
    with open(path, "rb") as f:
        data = f.read()
    os.remove(path)
    second = data.find(b"PK\x03\x04", 4)
    directory = data.find(b"PK\x01\x02")
    cuts = {"header": 20, "data": 100, "second-entry": second + 10, "central-directory": directory + 10,
            "end-record": len(data) - 10}
    for name, cut in cuts.items():
        with open(os.path.join(folder, f"truncated-{name}.zip"), "wb") as f:
            f.write(data[:cut])


def huge_declared_size(folder: str) -> None:
    path = os.path.join(folder, "declared-size.zip")
    write_zip(path, [("big.bin", FILE, b"small")])
    with open(path, "r+b") as f:
        f.seek(18)  # compressed and uncompressed sizes of the first local header
        f.write(struct.pack("<II", 0xFFFFFFF0, 0xFFFFFFF0))


def polyglot_iso(folder: str, outside: str) -> None:
    """An ISO 9660 image (its first 32 KiB are unused) that starts like a ZIP."""
    content = os.path.join(folder, "iso-content")
    os.makedirs(content)
    os.symlink(outside, os.path.join(content, "link"))
    iso = os.path.join(folder, "polyglot.iso")
    subprocess.run(["genisoimage", "-quiet", "-R", "-o", iso, content], check=True)
    with open(iso, "r+b") as f:
        f.write(b"PK\x03\x04")
    os.rename(iso, os.path.join(folder, "polyglot-iso.zip"))
    for name in os.listdir(content):
        os.remove(os.path.join(content, name))
    os.rmdir(content)


def image_of(volume: str, image: str) -> None:
    """A UDIF image of an ISO 9660 (Rock Ridge) volume made from the folder."""
    iso = image + ".iso"
    subprocess.run(["genisoimage", "-quiet", "-R", "-o", iso, volume], check=True)
    with open(iso, "rb") as f:
        data = udif(f.read())
    with open(image, "wb") as f:
        f.write(data)
    os.remove(iso)
    subprocess.run(["rm", "-rf", volume], check=True)


def hostile_images(folder: str) -> None:
    volume = os.path.join(folder, "volume")
    os.makedirs(volume)
    os.symlink("../../../etc", os.path.join(volume, "up"))
    image_of(volume, os.path.join(folder, "image-escaping-link.dmg"))

    os.makedirs(volume)
    for name, content in (("Case", "one"), ("case", "two")):
        with open(os.path.join(volume, name), "w") as f:
            f.write(content)
    image_of(volume, os.path.join(folder, "image-case.dmg"))

    os.makedirs(os.path.join(volume, "open"))
    for name, mode in (("suid", 0o4777), ("open/file", 0o666)):
        with open(os.path.join(volume, name), "w") as f:
            f.write("x")
        os.chmod(os.path.join(volume, name), mode)
    os.chmod(os.path.join(volume, "open"), 0o777)
    os.mkfifo(os.path.join(volume, "pipe"), 0o666)
    if os.geteuid() == 0:
        os.mknod(os.path.join(volume, "mem"), 0o666 | 0o020000, os.makedev(1, 1))
    image_of(volume, os.path.join(folder, "image-modes.dmg"))

    with open(os.path.join(folder, "image-modes.dmg"), "rb") as f:
        whole = f.read()
    with open(os.path.join(folder, "image-truncated.dmg"), "wb") as f:
        f.write(whole[: len(whole) // 2])


def hostile_set(folder: str, outside: str) -> None:
    os.makedirs(folder, exist_ok=True)
    out = lambda name: os.path.join(folder, name)
    write_zip(out("dotdot.zip"), [("ok.txt", FILE, "ok"), ("../../fennick-escape-dotdot", FILE, "out")])
    write_zip(out("absolute.zip"), [(outside + "/fennick-escape-absolute", FILE, "out")])
    write_zip(out("link-through.zip"), [("link", LINK, outside), ("link/fennick-escape-link", FILE, "out")])
    write_zip(out("relative-link-through.zip"),
              [("up", LINK, "../../../../../../.."), ("up/fennick-escape-relative", FILE, "out")])
    write_zip(out("escaping-link.zip"), [("ok.txt", FILE, "ok"), ("up", LINK, "../../../etc")])
    # "up" points at the top folder, which is fine; "out" reads as "sub" to a
    # check that counts components, but resolves through "up" to its parent.
    write_zip(out("link-after-name.zip"), [("sub/", FOLDER, ""), ("sub/up", LINK, ".."), ("sub/out", LINK, "up/..")])
    write_zip(out("device.zip"), [("null", 0o020666, "")])
    write_zip(out("fifo.zip"), [("pipe", 0o010666, "")])
    write_zip(out("duplicate.zip"), [("twice.txt", FILE, "first"), ("twice.txt", FILE, "second")])
    write_zip(out("duplicate-spelling.zip"), [("./twice.txt", FILE, "first"), ("twice.txt", FILE, "second")])
    write_zip(out("case.zip"), [("ReadMe", FILE, "one"), ("README", FILE, "two")])
    write_zip(out("deep.zip"), [("d/" * 140 + "f", FILE, "deep")])
    huge_declared_size(folder)
    zeros = bytes(64 << 20)
    write_zip(out("bomb.zip"), [("zeros", FILE, zeros)], zipfile.ZIP_DEFLATED, 9)
    write_zip(out("bomb-many.zip"), [(f"zeros{i}", FILE, zeros[: 1 << 20]) for i in range(64)],
              zipfile.ZIP_DEFLATED, 9)
    truncations(folder)
    with open(out("tar.zip"), "wb") as f:
        f.write(hostile_tar(outside))
    with open(out("polyglot-tar.zip"), "wb") as f:
        f.write(hostile_tar(outside, "PK\x03\x04evil"))
    subprocess.run(["bsdtar", "--format", "newc", "-cf", out("cpio.zip"), "@" + out("tar.zip")], check=True)
    with open(out("mtree.zip"), "w") as f:
        f.write("#mtree\n./hostname type=file mode=4755 contents=/etc/hostname\n")
    polyglot_iso(folder, outside)
    # Each other format gets a ZIP end record, so that only the check of its
    # start stands between it and bsdtar.
    for name in ("tar.zip", "polyglot-tar.zip", "cpio.zip", "mtree.zip", "polyglot-iso.zip"):
        with open(out(name), "ab") as f:
            f.write(b"PK\x05\x06" + bytes(18))
    write_zip(out("modes.zip"), [("suid", 0o104777, "x"), ("sgid", 0o102777, "x"), ("open/", 0o040777, ""),
                                 ("open/file", 0o100666, "x")])
    hostile_images(folder)
    directory_set(folder)
    for name in ("pipe.zip", "pipe.dmg", "pipe.bin"):
        os.mkfifo(out(name), 0o644)


def write_plain_zip(path: str, entries, create_system: int = 3) -> None:
    """Modes and types in the central directory only, as most writers keep
    them: a streaming reader sees none of them."""
    with zipfile.ZipFile(path, "w") as archive:
        for name, mode, content in entries:
            info = entry(name, mode)
            info.create_system = create_system
            archive.writestr(info, content)


MODE_ENTRIES = [
    ("bin/", 0o040700, ""),
    ("bin/run", 0o100755, "#!/bin/sh\n"),
    ("bin/link", LINK, "run"),
    ("doc.txt", FILE, "doc"),
    ("private.txt", 0o100600, "mine"),
    ("setuid", 0o104755, "x"),
    ("open", 0o100777, "x"),
    ("shared/", 0o041777, ""),
    ("bare", 0o755, "x"),  # permissions without a type
    ("lib/up", LINK, "../doc.txt"),
    ("./dot/tool", 0o100755, "x"),
    ("bad-NAME", 0o100700, "x"),
]


def with_zip64_end(data: bytes, entries=None, size=None, offset=None, plain_entries=0xFFFF) -> bytes:
    """The archive with ZIP64 end records before its end record, whose own
    fields then defer to them; the keywords put other values in the ZIP64
    record (or, for plain_entries, in the plain one)."""
    end = data.rfind(b"PK\x05\x06")
    _, _, _, count, _, plain_size, plain_offset, _ = struct.unpack("<4sHHHHIIH", data[end:end + 22])
    entries = count if entries is None else entries
    record = struct.pack("<4sQHHIIQQQQ", b"PK\x06\x06", 44, 0x031E, 45, 0, 0, entries, entries,
                         plain_size if size is None else size, plain_offset if offset is None else offset)
    locator = struct.pack("<4sIQI", b"PK\x06\x07", 0, end, 1)
    plain = struct.pack("<4sHHHHIIH", b"PK\x05\x06", 0xFFFF, 0xFFFF, plain_entries, plain_entries,
                        0xFFFFFFFF, 0xFFFFFFFF, 0)
    return data[:end] + record + locator + plain


def invalid_utf8_name(path: str) -> None:
    with open(path, "rb") as f:
        data = f.read()
    with open(path, "wb") as f:
        f.write(data.replace(b"bad-NAME", b"bad-\xff\xfe\xfd\xfc"))


def mode_set(folder: str, outside: str) -> None:
    os.makedirs(folder, exist_ok=True)
    out = lambda name: os.path.join(folder, name)
    write_plain_zip(out("modes.zip"), MODE_ENTRIES)
    invalid_utf8_name(out("modes.zip"))
    with open(out("modes.zip"), "rb") as f:
        data = f.read()
    with open(out("modes-zip64.zip"), "wb") as f:
        f.write(with_zip64_end(data))
    write_plain_zip(out("not-unix.zip"), [("run", 0o100755, "x"), ("link", LINK, "run")], create_system=0)
    refused = {
        "link-up.zip": [("up", LINK, "../outside")],
        "link-absolute.zip": [("abs", LINK, outside)],
        "link-after-name.zip": [("sub/up", LINK, ".."), ("sub/out", LINK, "up/..")],
        "link-nul.zip": [("nul", LINK, "a\0b")],
        "link-long.zip": [("long", LINK, "a" * 5000)],
        "link-empty.zip": [("empty", LINK, "")],
    }
    for name, links in refused.items():
        write_plain_zip(out(name), [("ok.txt", FILE, "ok")] + links)


class Unseekable(io.BytesIO):
    def seek(self, *arguments):
        raise OSError("a pipe cannot seek")


def unseekable_zip(entries) -> bytes:
    stream = Unseekable()
    with zipfile.ZipFile(stream, "w") as archive:
        for name, mode, content in entries:
            archive.writestr(entry(name, mode), content)
    return stream.getvalue()


def directory_records(data: bytes):
    """The offsets of the central directory's records and of the end record."""
    end = data.rfind(b"PK\x05\x06")
    count, _, offset = struct.unpack("<HII", data[end + 10:end + 20])
    records = []
    for _ in range(count):
        records.append(offset)
        name, extra, comment = struct.unpack("<HHH", data[offset + 28:offset + 34])
        offset += 46 + name + extra + comment
    return records, end


def patched(data: bytes, at: int, fmt: str, *values) -> bytes:
    packed = struct.pack(fmt, *values)
    return data[:at] + packed + data[at + len(packed):]


def directory_set(folder: str) -> None:
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, "valid.zip")
    write_plain_zip(path, [("a.txt", FILE, "a" * 100), ("b/", FOLDER, ""), ("b/c", LINK, "../a.txt")])
    with open(path, "rb") as f:
        valid = f.read()
    records, end = directory_records(valid)
    first = records[0]
    size, offset = struct.unpack("<II", valid[end + 12:end + 20])
    fake_end = struct.pack("<4sHHHHIIH", b"PK\x05\x06", 0, 0, 1, 1, 46, 0, 0)
    cases = {
        "zip64-end.zip": with_zip64_end(valid),
        "directory-shifted.zip": valid[:offset + 10] + valid[offset + 20:],
        "end-in-comment.zip": patched(valid, end + 20, "<H", len(fake_end)) + fake_end,
        "count-beyond-directory.zip": patched(valid, end + 8, "<HH", 0xFFFE, 0xFFFE),
        "offset-past-end.zip": patched(valid, end + 16, "<I", 0xFFFFFF00),
        "size-past-end.zip": patched(valid, end + 12, "<I", size + 1000),
        "zip64-huge-count.zip": with_zip64_end(valid, entries=1 << 62),
        "zip64-huge-offset.zip": with_zip64_end(valid, offset=(1 << 64) - 16, size=32),
        "zip64-huge-size.zip": with_zip64_end(valid, size=1 << 63),
        "zip64-disagrees.zip": with_zip64_end(valid, plain_entries=2),
        "overlapping.zip": patched(valid, first + 20, "<I", 150),  # reaches into the second entry
        "local-offset-past-directory.zip": patched(valid, first + 42, "<I", 0xFFFFFFFE),
        "name-mismatch.zip": patched(valid, first + 46, "<B", ord("z")),
        "nul-name.zip": patched(patched(valid, first + 47, "<B", 0), 31, "<B", 0),
        "no-end-record.zip": valid[:end],
        "bytes-after-end.zip": valid + b"junk",
        "count-too-small.zip": patched(valid, end + 8, "<HH", 2, 2),
    }
    # A ZIP64 extra field that moves the first entry's local header far away.
    extra = struct.pack("<HHQ", 0x0001, 8, 1 << 63)
    name_length, extra_length = struct.unpack("<HH", valid[first + 28:first + 32])
    record_end = first + 46 + name_length + extra_length
    moved = (valid[:first] + patched(valid[first:first + 46], 30, "<H", extra_length + len(extra))
             + valid[first + 46:record_end] + extra + valid[record_end:])
    moved = patched(moved, first + 42, "<I", 0xFFFFFFFF)
    new_end = end + len(extra)
    cases["zip64-extra-offset.zip"] = patched(moved, new_end + 12, "<I", size + len(extra))
    # An entry that the directory leaves out, which bsdtar would unpack.
    listed_path = os.path.join(folder, "listed.zip")
    write_plain_zip(listed_path, [("a.txt", FILE, "a"), ("hidden", FILE, "unlisted"), ("b.txt", FILE, "b")])
    with open(listed_path, "rb") as f:
        listed = f.read()
    os.remove(listed_path)
    (_, hidden, after), end = directory_records(listed)
    size = struct.unpack("<I", listed[end + 12:end + 16])[0]
    cut = after - hidden
    cases["hidden-entry.zip"] = patched(listed[:hidden] + listed[after:], end - cut + 8, "<HHI", 2, 2, size - cut)
    # Data descriptors after each entry's data, as writers to a pipe put them.
    with open(os.path.join(folder, "descriptors.zip"), "wb") as f:
        f.write(unseekable_zip([("a.txt", FILE, "a" * 100), ("b/", FOLDER, ""), ("b/c", LINK, "../a.txt")]))
    # A name longer than any path: 20 folders of 250 bytes.
    write_plain_zip(os.path.join(folder, "long-name.zip"), [(("n" * 250 + "/") * 20 + "f", FILE, "x")])
    for name, data in cases.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    if sys.argv[1] == "udif":
        with open(sys.argv[2], "rb") as f:
            image = udif(f.read())
        with open(sys.argv[3], "wb") as f:
            f.write(image)
    elif sys.argv[1] == "hostile-zip":
        hostile_zip(sys.argv[2])
    elif sys.argv[1] == "volume-image":
        image_of(sys.argv[2], sys.argv[3])
    elif sys.argv[1] == "hostile-set":
        hostile_set(sys.argv[2], sys.argv[3])
    elif sys.argv[1] == "mode-set":
        mode_set(sys.argv[2], sys.argv[3])
    elif sys.argv[1] == "directory-set":
        directory_set(sys.argv[2])
    else:
        sys.exit(__doc__)
