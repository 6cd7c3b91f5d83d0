#!/usr/bin/env python3
"""Python's plistlib, as a reader and writer independent of ours.

  dump PATH         prints the property list at PATH as JSON: data as
                    {"$bytes": hex}, reals as {"$real": x}, dates as
                    {"$date": seconds since 2001-01-01}.
  write PATH FORMAT writes a sample list (FORMAT "xml" or "binary") holding
                    integers at the edges of the signed and unsigned ranges.
"""
import datetime
import json
import plistlib
import sys

REFERENCE = datetime.datetime(2001, 1, 1)


def jsonable(value):
    if isinstance(value, dict):
        return {k: jsonable(v) for k, v in value.items()}
    if isinstance(value, list):
        return [jsonable(v) for v in value]
    if isinstance(value, bytes):
        return {"$bytes": value.hex()}
    if isinstance(value, float):
        return {"$real": value}
    if isinstance(value, datetime.datetime):
        return {"$date": (value.replace(tzinfo=None) - REFERENCE).total_seconds()}
    return value


def main():
    if sys.argv[1] == "dump":
        with open(sys.argv[2], "rb") as f:
            print(json.dumps(jsonable(plistlib.load(f))))
    elif sys.argv[1] == "write":
        sample = {
            "integers": [-5, 2**64 - 1, 2**63, -2**63, 2**63 - 1, 0],
            "when": REFERENCE - datetime.timedelta(days=1),
            "text": "caf\u00e9 \u2603",
            "flag": False,
        }
        fmt = plistlib.FMT_XML if sys.argv[3] == "xml" else plistlib.FMT_BINARY
        with open(sys.argv[2], "wb") as f:
            plistlib.dump(sample, f, fmt=fmt)


if __name__ == "__main__":
    main()
