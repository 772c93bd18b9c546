#!/usr/bin/env python3
"""Writes docs/commands.md from the grammar files; with --check it only says whether that file is up to date."""
import json
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
GRAMMAR = HERE.parent / "platform" / "grammar"
FILES = ("platform.cli", "lum.cli")
SCHEMAS = HERE.parent / "platform" / "corvaned" / "cmdsrv_json_schemas.def"
MODES = {"exec": "Exec mode", "configure": "Configure mode", "overlay": "Mode of an overlay interface",
         "device": "Mode of a device"}


def read(path):
    """The commands of one grammar file, each a dictionary of property to its lines."""
    commands = []
    current = None
    for line in path.read_text(encoding="utf-8").splitlines():
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        word, _, rest = line.strip().partition(" ")
        if not line[0].isspace():
            current = {"handler": [rest.strip()]} if word == "command" else None
            if current is not None:
                commands.append(current)
        elif current is not None:
            current.setdefault(word, []).append(rest.strip())
    return commands


def plain(syntax):
    """The syntax as a reader needs it: without types and the names that handlers know words by."""
    words = []
    for word in split(syntax):
        if word.startswith("<"):
            word = word.split(":", 1)[0] + ">"
        elif "=" in word:
            word = word.split("=", 1)[0]
        words.append(word)
    return " ".join(words)


def split(syntax):
    """Words and marks; a value with its type is one word."""
    words, word, inside = [], "", False
    for c in syntax:
        inside = (inside or c == "<") and c != ">"
        if not inside and c in " []{}()|":
            words += [w for w in (word, c.strip()) if w]
            word = ""
        else:
            word += c
    return words + ([word] if word else [])


def shapes():
    """What `| json` prints, by schema: the text of the shape, checked to be JSON itself."""
    found = re.findall(r'JSON_SCHEMA\("([^"]+)", \w+, R"\((.*)\)"\)', SCHEMAS.read_text(encoding="utf-8"))
    return {name: json.loads(shape) for name, shape in found}


def members(shape):
    flat = json.dumps(shape)
    return flat if len(flat) <= 100 else json.dumps(shape, indent=2)


def entry(command, schemas):
    one = lambda name: command.get(name, [""])[0]
    no = one("no")
    out = [f"### `{plain(one('syntax') or 'no ' + no)}`", "", one("brief") + ". " + " ".join(command.get("effect", [])), ""]
    if no and one("syntax"):
        out += [f"Taken back by `no {plain(one('syntax') if no == 'same' else no)}`.", ""]
    words = [f"- `{w}`: {t.strip()}" for w, _, t in (h.partition(" ") for h in command.get("help", []))]
    out += words + ([""] if words else [])
    if "reject" in command:
        out += ["Rejections:", ""] + [f"- {r}" for r in command["reject"]] + [""]
    if "json" in command:
        out += ["With `| json`:", "", "```", members(schemas[one("json")]), "```", ""]
    return out


def document():
    commands = [c for f in FILES for c in read(GRAMMAR / f)]
    schemas = shapes()
    out = ["# Commands", "", "Written by `docs/commands.py` from the grammar files; change those, not this page.", "",
           "`[ ]` may be left out, `{ a | b }` is one of these, `( a | b )` each of these at most once, in any order.", "",
           "Behind `| json` a value says what stands there; a member with `?` is missing where it says nothing. Lines of a",
           "table that have no place in it are in `other`, a list of texts.", ""]
    for mode, title in MODES.items():
        out += [f"## {title}", ""]
        for command in commands:
            if mode in command["mode"][0].split():
                out += entry(command, schemas)
    return "\n".join(out).rstrip() + "\n"


def main():
    target = HERE / "commands.md"
    text = document()
    if "--check" in sys.argv[1:]:
        same = target.exists() and target.read_text(encoding="utf-8") == text
        print("docs/commands.md is up to date" if same else "docs/commands.md differs: run docs/commands.py")
        return 0 if same else 1
    target.write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
