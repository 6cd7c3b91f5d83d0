#!/usr/bin/env python3
"""Reads a keyed archive with Python's plistlib, an implementation independent
of ours, checks the archive envelope and prints the object graph as JSON.

Objects (dictionaries with $class) appear once, as
{"$uid": n, "$classname": ..., "$classes": [...], <their keys>...};
later references to the same entry print as {"$ref": n}, so shared objects
and cycles are visible. Data prints as {"$bytes": hex}, reals as {"$real": x}.
Exit status 1 with a message on stderr when the envelope is wrong.

With --write-sample PATH it instead writes a small binary archive in the
platform's layout (a mutable string object, a date, an error and a mutable
array holding them), for checking that archives written by others decode.
"""
import json
import plistlib
import sys


def fail(message):
    print(message, file=sys.stderr)
    sys.exit(1)


def main(path):
    with open(path, "rb") as f:
        archive = plistlib.load(f)
    if archive.get("$archiver") != "NSKeyedArchiver":
        fail("bad $archiver")
    if archive.get("$version") != 100000:
        fail("bad $version")
    objects = archive.get("$objects")
    if not isinstance(objects, list) or not objects or objects[0] != "$null":
        fail("$objects must start with $null")
    top = archive.get("$top")
    if not isinstance(top, dict):
        fail("bad $top")

    printed = set()

    def value(v):
        if isinstance(v, plistlib.UID):
            return entry(v.data)
        if isinstance(v, list):
            return [value(x) for x in v]
        if isinstance(v, bytes):
            return {"$bytes": v.hex()}
        if isinstance(v, float):
            return {"$real": v}
        if isinstance(v, dict):
            fail("nested dictionary outside an object entry")
        return v

    def entry(uid):
        if uid == 0:
            return None
        if uid >= len(objects):
            fail(f"UID {uid} out of range")
        e = objects[uid]
        if not isinstance(e, dict):
            return value(e)
        if uid in printed:
            return {"$ref": uid}
        printed.add(uid)
        cls = objects[e["$class"].data]
        result = {"$uid": uid, "$classname": cls["$classname"], "$classes": cls["$classes"]}
        for key, v in e.items():
            if key != "$class":
                result[key] = value(v)
        return result

    graph = {key: value(v) for key, v in top.items()}
    print(json.dumps({"top": graph, "objectCount": len(objects)}))


def write_sample(path):
    UID = plistlib.UID
    objects = [
        "$null",
        {"$class": UID(2), "NS.objects": [UID(3), UID(5), UID(7), UID(9)]},
        {"$classname": "NSMutableArray", "$classes": ["NSMutableArray", "NSArray", "NSObject"]},
        {"$class": UID(4), "NS.string": "mutable text"},
        {"$classname": "NSMutableString", "$classes": ["NSMutableString", "NSString", "NSObject"]},
        {"$class": UID(6), "NS.time": 86400.5},
        {"$classname": "NSDate", "$classes": ["NSDate", "NSObject"]},
        {"$class": UID(8), "NSCode": -42, "NSDomain": UID(10), "NSUserInfo": UID(11)},
        {"$classname": "NSError", "$classes": ["NSError", "NSObject"]},
        18446744073709551615,
        "com.example.domain",
        {"$class": UID(12), "NS.keys": [UID(13)], "NS.objects": [UID(14)]},
        {"$classname": "NSDictionary", "$classes": ["NSDictionary", "NSObject"]},
        "NSLocalizedDescription",
        "Something failed",
    ]
    archive = {"$archiver": "NSKeyedArchiver", "$version": 100000, "$top": {"root": UID(1)},
               "$objects": objects}
    with open(path, "wb") as f:
        plistlib.dump(archive, f, fmt=plistlib.FMT_BINARY)


if __name__ == "__main__":
    if sys.argv[1] == "--write-sample":
        write_sample(sys.argv[2])
    else:
        main(sys.argv[1])
