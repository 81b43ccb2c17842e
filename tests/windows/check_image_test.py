#!/usr/bin/env python3
"""Damages built images in every way that check_image.py is to notice, and sees that it does."""
import argparse
import struct
import sys

import check_image
import pe_image
from check_image import Instruction
from pe_image import Image, RuntimeFunction


def put(form, offset, *values):
    """A damage: other values at a place of the file."""
    def apply(data):
        struct.pack_into(form, data, offset, *values)
    return apply


def replace(old, new):
    """A damage: every occurrence of a text becomes another one, equally long."""
    def apply(data):
        if old not in data or len(old) != len(new):
            raise ValueError(f"{old} cannot become {new}")
        data[:] = data.replace(old, new)
    return apply


def sections_offset(image):
    header = image.optional - 24
    return image.optional + image.unpack("<H", header + 20)[0]


def directory_offset(image, index):
    return image.optional + 112 + 8 * index


def flip_flags(image, name, flags):
    """The flags of a section lie at the end of its header."""
    for index, section in enumerate(image.sections):
        if section.name == name:
            return put("<I", sections_offset(image) + 40 * index + 36, section.flags ^ flags)
    raise ValueError(name)


def header_damages(image):
    directory = directory_offset(image, pe_image.RESOURCE)
    flags, without = image.optional + 70, image.characteristics
    return [
        ("machine 0x14c", put("<H", image.optional - 20, 0x14C)),
        ("subsystem 2", put("<H", image.optional + 68, 2)),
        ("NX compatibility not set", put("<H", flags, without & ~0x100)),
        ("dynamic base not set", put("<H", flags, without & ~0x40)),
        ("integrity checks not set", put("<H", flags, without & ~0x80)),
        ("without relocations", put("<H", image.optional - 2, image.file_flags | 1)),
        ("entry point", put("<I", image.optional + 16, image.entry + 1)),
        ("no version resource", put("<II", directory, 0, 0)),
        (".text is writable and executable", flip_flags(image, ".text", pe_image.SECTION_WRITE)),
        (".data is writable and executable", flip_flags(image, ".data", pe_image.SECTION_EXECUTE)),
    ]


def linkage_damages(image):
    reloc = image.directory(pe_image.RELOCATION)[0]
    first = image.relocations()[0][1]
    binding = image.data.index(check_image.BINDING)
    return [
        ("imports from ['WDFLDR.SYS', 'msvcrt64.dll', 'zpklib.sys']",
         replace(b"ntoskrnl.exe\0", b"msvcrt64.dll\0")),
        ("ntoskrnl.exe has no export EtwWrate", replace(b"\0EtwWrite\0", b"\0EtwWrate\0")),
        ("zpklib.sys has no export ZPkDtRename_",
         replace(b"\0ZPkDtInsert\0\0", b"\0ZPkDtRename_\0")),
        ("no binding to version 1.11",
         replace(check_image.BINDING, check_image.BINDING[:12] + b"\0\1\0\0")),
        ("binding to another component", replace("Kmdf".encode("utf-16-le"), b"K\0m\0d\0g\0")),
        ("function table cannot be written", put("<Q", binding + 16, image.base + image.entry)),
        ("thread-local data", put("<II", directory_offset(image, pe_image.TLS), first, 8)),
        ("no relocations", put("<II", directory_offset(image, pe_image.RELOCATION), reloc, 0)),
        ("of type 3: expected 10", put("<H", image.offset(reloc + 8), 0x3000)),
        ("of a value outside the image", put("<Q", image.offset(first), image.base + image.size)),
    ]


def unwind_damages(image):
    directory, size = image.directory(pe_image.EXCEPTION)
    table = image.offset(directory)
    entries = image.runtime_functions()
    guarded = next(e for e in entries if image.unwind_info(e.unwind).handler)
    info = image.offset(guarded.unwind)
    handler = info + 4 + 2 * (image.data[info + 2] + image.data[info + 2] % 2)
    scope = image.unwind_info(guarded.unwind).scopes[0]
    return [
        ("no unwind data", put("<II", directory_offset(image, pe_image.EXCEPTION),
                               directory, size - 12)),
        ("out of order", put("<6I", table, *entries[1], *entries[0])),
        ("where no function begins", put("<I", table, entries[0].begin + 1)),
        ("unwind data up to", put("<I", table + 4, entries[0].end - 1)),
        ("which is no code", put("<3I", table + size - 12,
                                 *RuntimeFunction(directory, directory + 4, entries[-1].unwind))),
        ("of version 2", put("<B", info, image.data[info] + 1)),
        ("PlatformCopyProtected: no exception handler", put("<B", info, 1)),
        ("its handler is not", put("<I", handler, guarded.begin)),
        ("guarded range outside", put("<I", handler + 8, guarded.end)),
        ("no guarded call", put("<II", handler + 8, scope.begin - 1, scope.begin)),
    ]


def export_damages(image):
    """Of zpklib.sys."""
    directory = image.directory(pe_image.EXPORT)[0]
    functions = image.read("<I", directory + 28)[0]  # the first slot is not used
    return [
        ("export ZPkPsRelease is missing", replace(b"\0ZPkPsRelease\0", b"\0ZPkPsRelaase\0")),
        ("export ZPkPsRelaase is unexpected", replace(b"\0ZPkPsRelease\0", b"\0ZPkPsRelaase\0")),
        ("is no code", put("<I", image.offset(functions) + 4, directory)),
        ("exports as", put("<c", image.offset(image.read("<12xI", directory)[0]), b"x")),
    ]


def program_damages(image):
    return [
        ("subsystem 1", put("<H", image.optional + 68, 1)),
        ("dynamic base not set", put("<H", image.optional + 70, 0)),
        ("no version resource", put("<II", directory_offset(image, pe_image.RESOURCE), 0, 0)),
        (".data is writable and executable", flip_flags(image, ".data", pe_image.SECTION_EXECUTE)),
        ("imports from libgcc.dll, ", replace(b"msvcrt.dll\0", b"libgcc.dll\0")),
    ]


def check_damages(image, damages, check):
    """The damages that `check` does not notice."""
    missed = []
    for message, damage in damages:
        data = bytearray(image.data)
        damage(data)
        struct.pack_into("<I", data, image.optional + 64, check_image.compute_checksum(data))
        errors = list(check(Image(data)))
        if not any(message in error for error in errors):
            missed.append(f"nothing said {message!r}: {errors}")
    return missed


def check_code_damages(image, functions, instructions, expected, name):
    """Damages of what the symbols and the disassembly tell."""
    some = next(f for f in functions if f.begin in {e.begin for e in image.runtime_functions()})
    leaf = next(f for f in functions if f.begin not in {e.begin for e in image.runtime_functions()})
    initialiser = some._replace(name="_GLOBAL__sub_I_x")
    return [f"{name}: nothing said {message!r}" for message, those, code in [
        ("nobody runs initialisers",
         [initialiser if f == some else f for f in functions], instructions),
        ("code of no known function", [f for f in functions if f != leaf], instructions),
        (f"{leaf.name}: no unwind data", functions,
         [Instruction(leaf.begin, "callq", "0x1"), *instructions]),
        ("Lost: no such function", functions, instructions),
    ] if not any(message in error for error in check_image.check(
        image, those, code, expected._replace(guarded=expected.guarded | {"Lost"}), name))]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    check_image.add_arguments(parser)
    arguments = parser.parse_args()
    kernel = check_image.kernel_exports(arguments.nm, arguments.kernel_library)
    expectations = check_image.expectations(kernel, arguments.header.read_text())
    missed, count = [], 0
    for path in arguments.images:
        image, *symbols = check_image.load(arguments, path)
        expected = expectations[path.name]
        damages = header_damages(image)
        if expected.exports:
            damages += export_damages(image)
        else:
            damages += linkage_damages(image) + unwind_damages(image)
            missed += check_code_damages(image, *symbols, expected, path.name)
        missed += check_damages(image, damages, lambda damaged: check_image.check(
            damaged, *symbols, expected, path.name))
        count += len(damages)
        stale = bytearray(image.data)
        stale[-1] ^= 1
        if not any("checksum" in error for error in check_image.check_headers(
                Image(stale), symbols[0], expected)):
            missed.append(f"{path.name}: a stale checksum was not noticed")
    program = Image(arguments.program.read_bytes())
    damages = program_damages(program)
    missed += check_damages(program, damages, check_image.check_program)
    count += len(damages)
    print(f"{count} damages, {len(missed)} not noticed")
    if missed:
        sys.exit("\n".join(missed))


if __name__ == "__main__":
    main()
