#!/usr/bin/env python3
"""Checks the include rules of the tree; prints each include that breaks one and exits 1.

lum/ includes export/krel, platform/api and itself. platform/api includes only itself. The rest of platform includes
anything of platform but nothing of lum/; of export/krel only corvack does, which is a client of the daemon.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def headers(folder):
    return {p.name for p in (ROOT / folder).glob("*.h")}


def sources(folder):
    return [p for p in (ROOT / folder).rglob("*") if p.suffix in (".h", ".cpp")]


def resolve(source, name, folders):
    """The file that an include names: beside the source, or in one of the include folders."""
    for folder in [source.parent, *(ROOT / f for f in folders)]:
        found = (folder / name).resolve()
        if found.is_file():
            return found.relative_to(ROOT)
    return None


def broken():
    rules = [
        # folder, include folders, what it may include (path prefixes)
        ("lum", ["lum", "export/krel", "platform/api", "platform/fake"], ("lum/", "export/krel/", "platform/api/")),
        ("export", ["export/krel"], ("export/",)),
        ("platform", ["platform/api", "platform/fake", "export/krel"], ("platform/",)),
        ("platform/api", ["platform/api"], ("platform/api/",)),
    ]
    for folder, include_folders, allowed in rules:
        for source in sources(folder):
            inside = source.relative_to(ROOT).as_posix()
            permitted = allowed
            if inside.startswith("lum/tests/"):
                permitted += ("platform/fake/",)
            if inside.startswith("platform/corvack/"):
                permitted += ("export/krel/",)
            for name in INCLUDE.findall(source.read_text(errors="replace")):
                target = resolve(source, name, include_folders)
                if target is None:
                    yield f"{inside}: \"{name}\" is not found"
                elif not target.as_posix().startswith(permitted):
                    yield f"{inside}: includes {target}"


def main():
    found = sorted(set(broken()))
    for line in found:
        print(line)
    print(f"{len(found)} includes break the rules")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
