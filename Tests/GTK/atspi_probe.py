#!/usr/bin/python3
"""Reads a window of a running application through AT-SPI, as a screen reader
would, and prints it as JSON: the window's role, name and description and,
for each push button, check box and label inside it, the same plus the
on-screen rectangle. Waits until a window with the given accessible role
name (for example "alert") appears, at most TIMEOUT seconds.

usage: atspi_probe.py ROLE [TIMEOUT [NAME]]
With NAME, only a window of that accessible name counts.
"""
import json
import sys
import time

import pyatspi

KINDS = {"push button": "buttons", "check box": "checkboxes", "label": "labels"}


def extents(accessible):
    try:
        box = accessible.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
        return [box.x, box.y, box.width, box.height]
    except Exception:
        return None


def describe(accessible):
    return {
        "role": accessible.getRoleName(),
        "name": accessible.name,
        "description": accessible.description,
        "extents": extents(accessible),
    }


def collect(accessible, found):
    for index in range(accessible.childCount):
        child = accessible.getChildAtIndex(index)
        if child is None:
            continue
        kind = KINDS.get(child.getRoleName())
        if kind:
            found[kind].append(describe(child))
        if kind != "push button":  # a button's own label is its name
            collect(child, found)


def find_window(role, name):
    desktop = pyatspi.Registry.getDesktop(0)
    for application in desktop:
        if application is None:
            continue
        for index in range(application.childCount):
            window = application.getChildAtIndex(index)
            if window is None or window.getRoleName() != role:
                continue
            if name is None or window.name == name:
                return window
    return None


def main():
    role = sys.argv[1]
    deadline = time.monotonic() + (float(sys.argv[2]) if len(sys.argv) > 2 else 30)
    name = sys.argv[3] if len(sys.argv) > 3 else None
    while True:
        window = find_window(role, name)
        if window is not None:
            found = {"window": describe(window), "buttons": [], "checkboxes": [], "labels": []}
            collect(window, found)
            if found["buttons"]:
                print(json.dumps(found))
                return 0
        if time.monotonic() > deadline:
            seen = []
            for application in pyatspi.Registry.getDesktop(0):
                if application is None:
                    continue
                for index in range(application.childCount):
                    window = application.getChildAtIndex(index)
                    if window is not None:
                        seen.append("%s %r" % (window.getRoleName(), window.name))
            print("no %s window appeared; windows: %s" % (role, ", ".join(seen) or "none"), file=sys.stderr)
            return 1
        time.sleep(0.1)


if __name__ == "__main__":
    sys.exit(main())
