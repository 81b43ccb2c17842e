#!/usr/bin/env python3
"""Compares the project's kernel headers with those of the MinGW-w64 package.

Every structure that both declare must have the same size and the same offset of each member, every
constant and enumerator that both declare the same value. The compiler lays the structures out, on
either side for Windows.
"""
import argparse
import re
import subprocess
import sys
import tempfile
from pathlib import Path

# The framework's header: MinGW-w64 has none.
NOT_COMPARED = {"wdf.h"}

# Structures that MinGW-w64 does not declare. Any other that is not found there has a wrong name.
ABSENT_STRUCTURES = {
    "KEY_CACHED_INFORMATION",
    "KEY_FLAGS_INFORMATION",
    "KEY_NAME_INFORMATION",
    "KEY_VIRTUALIZATION_INFORMATION",
    "REG_QUERY_KEY_NAME",
}

# Structures and members that MinGW-w64 calls by another name.
THEIR_STRUCTURES = {
    # The form that Windows 7 and later pass.
    "REG_CREATE_KEY_INFORMATION": "REG_CREATE_KEY_INFORMATION_V1",
    "REG_OPEN_KEY_INFORMATION": "REG_OPEN_KEY_INFORMATION_V1",
}
THEIR_MEMBERS = {
    "KEY_SET_VIRTUALIZATION_INFORMATION.Flags": "VirtualTarget",  # the first of its bits
    "REG_CREATE_KEY_INFORMATION.CreateOptions": "Options",
    "REG_CREATE_KEY_INFORMATION_V1.CreateOptions": "Options",
    "REG_OPEN_KEY_INFORMATION.CreateOptions": "Options",
}


def parse_declarations(text):
    """Names of the structures and values of the constants that the headers' text declares."""
    heads = re.findall(r"^(?:struct|union)\b[^;{]*\{", text, re.M)
    structures = re.findall(r"^(?:struct|union) (?:alignas\(\d+\) )?(\w+) \{", text, re.M)
    if len(heads) != len(structures):
        sys.exit(f"cannot read the name of a structure among: {heads}")
    for name, target in re.findall(r"^using (\w+) = (\w+);", text, re.M):
        if target in structures:
            structures.append(name)
    constants = re.findall(r"^inline constexpr \w+ (\w+) =\s([^;]+);", text, re.M)
    for body in re.findall(r"^enum \w+ : \w+ \{(.*?)\};", text, re.M | re.S):
        constants += re.findall(r"(\w+) = (\w+)", body)
    values = {}
    for name, expression in constants:
        literals = re.findall(r"\b0x[0-9A-Fa-f]+\b|\b\d+\b", expression)
        if len(literals) != 1:
            sys.exit(f"{name}: expected one literal, found: {expression}")
        values[name] = int(literals[0], 0)
    return structures, values


def write_probe(structures, values):
    """A translation unit that has the structures laid out and the values compared.

    `structures` gives each the name that the headers at hand know it by.
    """
    lines = ["#include <ntifs.h>"]
    for name, known_as in structures.items():
        lines += [f"struct Probe_{name} {{ {known_as} value; }};",
                  f"int use_{name}[sizeof(struct Probe_{name})];"]
    lines += [f'_Static_assert((unsigned)({name}) == {value}u, "{name}: {value:#x} here");'
              for name, value in values.items()]
    return "\n".join(lines) + "\n"


def compile_probe(command, source):
    """What the compiler says of the layouts, and its errors."""
    with tempfile.NamedTemporaryFile("w", suffix=".c") as file:
        file.write(source)
        file.flush()
        result = subprocess.run(
            command + ["--target=x86_64-w64-windows-gnu", "-nostdlibinc", "-fsyntax-only",
                       "-ferror-limit=0", "-Xclang", "-fdump-record-layouts", file.name],
            capture_output=True, text=True, check=False)
    errors = [line for line in result.stderr.splitlines() if "error: " in line]
    if result.returncode != 0 and not errors:
        sys.exit(result.stderr)
    return result.stdout, errors


def parse_layouts(dump):
    """Of each structure its size and the offsets of its members, by path.

    Levels without a name, for which some compilers need one (u, s), are left out of the paths.
    """
    layouts = {}
    for record in dump.split("*** Dumping AST Record Layout\n"):
        head = re.match(r" +0 \| struct Probe_(\w+)\n", record)
        if head is None:
            continue
        size = re.search(r"\[sizeof=(\d+)", record)
        members, path = {}, []
        lines = re.findall(r"^ *(\d+)[-:\d]* \| ( {4,})(.+)$", record, re.M)
        for offset, indent, declaration in lines:
            del path[len(indent) // 2 - 2:]
            if re.search(r"\((?:anonymous|unnamed) at [^)]*\) *[us]?$", declaration):
                path.append("")
                continue
            path.append(declaration.split()[-1])
            members[".".join(filter(None, path))] = int(offset)
        layouts[head[1]] = (int(size[1]), members)
    return layouts


def compare(ours, theirs):
    """What differs, as sentences."""
    errors = []
    for name, (size, members) in ours.items():
        their_size, their_members = theirs[name]
        if size != their_size:
            errors.append(f"{name}: {size} bytes here, {their_size} in MinGW-w64")
        for member, offset in members.items():
            their_offset = their_members.get(THEIR_MEMBERS.get(f"{name}.{member}", member))
            if offset != their_offset:
                errors.append(f"{name}.{member}: at {offset} here, at {their_offset} in MinGW-w64")
    return errors


def find_absent(mingw, structures, values):
    """Names that MinGW-w64 does not declare."""
    pattern = r"(?:unknown type name|use of undeclared identifier) '(\w+)'"
    _, errors = compile_probe(mingw, write_probe(structures, values))
    return set(re.findall(pattern, "\n".join(errors)))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--clang", required=True)
    parser.add_argument("--headers", required=True, type=Path, help="the project's kernel headers")
    parser.add_argument("--include", action="append", default=[], help="where these find others")
    parser.add_argument("--mingw", required=True, help="the include directory of MinGW-w64")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    text = "".join(header.read_text() for header in sorted(arguments.headers.glob("*.h"))
                   if header.name not in NOT_COMPARED)
    names, values = parse_declarations(text)
    mingw = [arguments.clang, "-x", "c"]
    for directory in [arguments.mingw, f"{arguments.mingw}/ddk"]:
        mingw += ["-isystem", directory]
    project = [arguments.clang, "-x", "c++", "-std=c++20", "-ffreestanding", "-nostdinc++",
               "-Wno-c11-extensions"]
    for directory in [*arguments.include, str(arguments.headers)]:
        project += ["-isystem", directory]

    known_as = {name: THEIR_STRUCTURES.get(name, name) for name in names}
    absent = find_absent(mingw, known_as, values)
    known_as = {name: theirs for name, theirs in known_as.items() if theirs not in absent}
    compared = {name: value for name, value in values.items() if name not in absent}
    our_dump, our_errors = compile_probe(project, write_probe({n: n for n in known_as}, compared))
    their_dump, errors = compile_probe(mingw, write_probe(known_as, compared))
    errors += our_errors
    ours = parse_layouts(our_dump)
    if not errors:
        errors = compare(ours, parse_layouts(their_dump))
    not_found = absent.intersection(THEIR_STRUCTURES.get(name, name) for name in names)
    errors += [f"{name}: MinGW-w64 declares no such structure"
               for name in sorted(not_found - ABSENT_STRUCTURES)]
    members = sum(len(members) for _, members in ours.values())
    print(f"compared {len(ours)} structures, {members} members, {len(compared)} constants; "
          f"{len(absent)} names are not declared by MinGW-w64")
    if errors:
        sys.exit("\n".join(errors))


if __name__ == "__main__":
    main()
