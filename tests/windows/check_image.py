#!/usr/bin/env python3
"""Checks that the built images are such as Windows loads.

Each kernel image is read together with its symbols (the PDB file beside it) and a disassembly, so that no
code in it goes unexplained.
"""
import argparse
import re
import struct
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

import pe_image
from pe_image import Image

sys.path.append(str(Path(__file__).resolve().parents[2] / "cmake"))
from set_checksum import compute_checksum  # noqa: E402

Function = namedtuple("Function", "name begin end")
Instruction = namedtuple("Instruction", "address operation operands")
# What an image is to be: its entry point, what it may import of which module, what it exports, and
# the functions that have an exception handler.
Expected = namedtuple("Expected", "entry imports exports guarded")

AMD64, PE32_PLUS, NATIVE, CONSOLE, VERSION_RESOURCE, DIR64 = 0x8664, 0x20B, 1, 3, 16, 10
INTEGRITY = 0x0080
CHARACTERISTICS = {
    0x0020: "high-entropy addresses",
    0x0040: "dynamic base",
    INTEGRITY: "integrity checks",
    0x0100: "NX compatibility",
}
RELOCATIONS_STRIPPED = 0x1
FIXED_VERSION = b"\xbd\x04\xef\xfe"
LOADER = "WDFLDR.SYS"
# Version and number of functions, as the stub's binding has them behind its size and component.
BINDING = struct.pack("<4I", 1, 11, 9200, 432)
FRAMEWORK = "KmdfLibrary\0".encode("utf-16-le")
HANDLER = "__C_specific_handler"
# What programs may rely on in every Windows.
SYSTEM_LIBRARIES = {"ADVAPI32.dll", "KERNEL32.dll", "msvcrt.dll", "ntdll.dll"}
INITIALISER_NAMES = ("_GLOBAL__", "__cxx_global_var_init", "dynamic initializer")


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def kernel_exports(nm, library):
    """The functions and variables that the import library of ntoskrnl.exe names."""
    symbols = run(nm, "--just-symbol-name", library)
    return set(re.findall(r"^__imp_(\S+)$", symbols, re.M))


def read_functions(pdbutil, image, pdb):
    """Every function that the symbols tell of, by address."""
    text = run(pdbutil, "dump", "-symbols", pdb)
    pattern = (r"S_[GL]PROC32(?:_ID)? \[size = \d+\] `(.*)`\n"
               r".*addr = (\d+):(\d+), code size = (\d+)")
    functions = []
    for name, section, offset, size in re.findall(pattern, text):
        if int(section) != 0:  # 0: dropped by the linker
            begin = image.sections[int(section) - 1].address + int(offset)
            functions.append(Function(name, begin, begin + int(size)))
    return sorted(set(functions), key=lambda function: function.begin)


def read_instructions(objdump, image, path):
    text = run(objdump, "-d", "--no-show-raw-insn", path)
    found = re.findall(r"^ *([0-9a-f]+): +\t?(\S+)[ \t]*(.*)$", text, re.M)
    return [Instruction(int(address, 16) - image.base, operation, operands)
            for address, operation, operands in found]


def check_headers(image, functions, expected):
    if image.machine != AMD64 or image.magic != PE32_PLUS:
        yield f"machine {image.machine:#x}, format {image.magic:#x}: expected x86-64, PE32+"
    if image.subsystem != NATIVE:
        yield f"subsystem {image.subsystem}: expected {NATIVE}, native"
    for bit, meaning in CHARACTERISTICS.items():
        if not image.characteristics & bit:
            yield f"{meaning} not set"
    if image.file_flags & RELOCATIONS_STRIPPED:
        yield "marked as without relocations"
    names = [function.name for function in functions if function.begin == image.entry]
    if names != [expected.entry]:
        yield f"entry point {names or hex(image.entry)}: expected {expected.entry}"
    if image.checksum != compute_checksum(image.data):
        yield f"checksum {image.checksum:#x}: expected {compute_checksum(image.data):#x}"
    if b".cpp" in image.data or b".h\0" in image.data:
        yield "names of source files"


def check_version(image):
    if not image.resource_types().get(VERSION_RESOURCE, b"")[40:].startswith(FIXED_VERSION):
        yield "no version resource"


def check_sections(image):
    for section in image.sections:
        if section.flags & pe_image.SECTION_EXECUTE and section.flags & pe_image.SECTION_WRITE:
            yield f"section {section.name} is writable and executable"


def check_imports(image, expected):
    imports = image.imports()
    if set(imports) != set(expected.imports):
        yield f"imports from {sorted(imports)}: expected {sorted(expected.imports)}"
    for module, slots in imports.items():
        for name in sorted(set(slots.values()) - expected.imports.get(module, set())):
            yield f"{module} has no export {name}"
    for index, what in ((pe_image.TLS, "thread-local data"),
                        (pe_image.DELAY_IMPORT, "delayed imports")):
        if image.directory(index)[0] != 0:
            yield f"{what} in a kernel image"


def check_binding(image, expected):
    """What the loader stub hands to the framework, if the image binds to it."""
    if LOADER not in expected.imports:
        return
    binding = image.data.find(BINDING)
    if binding < 0 or image.unpack("<I", binding - 16)[0] != 48:
        yield "no binding to version 1.11 of the framework"
        return
    component, table = image.unpack("<Q16xQ", binding - 8)
    if image.read("<24s", component - image.base)[0] != FRAMEWORK:
        yield f"binding to another component than {FRAMEWORK}"
    section = image.section_at(table - image.base)
    if section is None or not section.flags & pe_image.SECTION_WRITE:
        yield "the framework's function table cannot be written"


def check_exports(image, expected, file_name):
    module, exports = image.exports()
    if expected.exports and module != file_name:
        yield f"exports as {module!r}: expected {file_name!r}"
    for name in sorted(set(exports) ^ expected.exports):
        yield f"export {name} is {'unexpected' if name in exports else 'missing'}"
    for name, address in exports.items():
        if not image.is_code(address):
            yield f"export {name} is no code"


def check_relocations(image):
    relocations = image.relocations()
    if not relocations:
        yield "no relocations"
    for kind, address in relocations:
        if kind != DIR64:
            yield f"relocation at {address:#x} of type {kind}: expected {DIR64}"
        elif image.section_at(image.read("<Q", address)[0] - image.base) is None:
            yield f"relocation at {address:#x} of a value outside the image"


def check_unwind_table(image):
    """The system searches the table by halving: it must be in order."""
    previous = 0
    for entry in image.runtime_functions():
        if not previous <= entry.begin < entry.end:
            yield f"unwind data of {entry.begin:#x} out of order"
        if not image.is_code(entry.begin) or not image.is_code(entry.end - 1):
            yield f"unwind data of {entry.begin:#x}, which is no code"
        previous = entry.end
        info = image.unwind_info(entry.unwind)
        if info.version != 1:
            yield f"unwind data of {entry.begin:#x} of version {info.version}: expected 1"


def touches_stack(instruction):
    """Whether a function with this instruction needs unwind data."""
    return (instruction.operation.startswith(("call", "push", "pop", "enter", "leave")) or
            instruction.operands.endswith("%rsp"))


def check_functions(image, functions, instructions):
    """Each function is described by one entry, or calls nothing and leaves the stack alone."""
    entries = {entry.begin: entry for entry in image.runtime_functions()}
    names = {function.begin: function.name for function in functions}
    for begin in sorted(set(entries) - set(names)):
        yield f"unwind data of {begin:#x}, where no function begins"
    for function in functions:
        if any(function.name.startswith(name) for name in INITIALISER_NAMES):
            yield f"{function.name}: nobody runs initialisers"
        entry = entries.get(function.begin)
        if entry is not None and entry.end != function.end:
            yield f"{function.name}: unwind data up to {entry.end:#x} of {function.end:#x}"
        body = [i for i in instructions if function.begin <= i.address < function.end]
        if entry is None and (not body or any(map(touches_stack, body))):
            yield f"{function.name}: no unwind data"


def check_code_between(image, functions, instructions):
    """Between functions there is padding and there are thunks of imports, no code of others."""
    slots = {slot for names in image.imports().values() for slot in names}
    position = 0
    for instruction in instructions:
        while position < len(functions) and functions[position].end <= instruction.address:
            position += 1
        if position < len(functions) and functions[position].begin <= instruction.address:
            continue
        padding = (instruction.operation in ("int3", "data16") or "nop" in instruction.operation or
                   (instruction.operation, instruction.operands) == ("xchgw", "%ax, %ax"))
        thunk = (instruction.operation == "jmpq" and
                 image.jump_slot(instruction.address) in slots)
        if not padding and not thunk:
            yield (f"code of no known function at {instruction.address:#x}: "
                   f"{instruction.operation} {instruction.operands}")


def check_guarded(image, functions, instructions, expected):
    """A guarded function's handler is the system's, and a call in it is guarded."""
    slots = {slot: name for names in image.imports().values() for slot, name in names.items()}
    entries = {entry.begin: entry for entry in image.runtime_functions()}
    # A fault in a callee is looked up by the address that the call returns to.
    returns = [behind.address for call, behind in zip(instructions, instructions[1:])
               if call.operation.startswith("call")]
    for function in functions:
        entry = entries.get(function.begin)
        info = image.unwind_info(entry.unwind) if entry else None
        if info is None or info.handler == 0:
            if function.name in expected.guarded:
                yield f"{function.name}: no exception handler"
            continue
        if function.name not in expected.guarded:
            yield f"{function.name}: unexpected exception handler"
        if slots.get(image.jump_slot(info.handler)) != HANDLER:
            yield f"{function.name}: its handler is not {HANDLER}"
        places = (place for scope in info.scopes
                  for place in (scope.begin, scope.end - 1, scope.target))
        if not all(entry.begin <= place < entry.end for place in places):
            yield f"{function.name}: guarded range outside the function"
        if not any(scope.begin <= place < scope.end for scope in info.scopes for place in returns):
            yield f"{function.name}: no guarded call"
    for name in sorted(expected.guarded - {function.name for function in functions}):
        yield f"{name}: no such function"


def check(image, functions, instructions, expected, file_name):
    """Everything that is wrong with the kernel image, as sentences."""
    errors = [*check_headers(image, functions, expected), *check_version(image),
              *check_sections(image), *check_imports(image, expected),
              *check_binding(image, expected), *check_exports(image, expected, file_name),
              *check_relocations(image), *check_unwind_table(image),
              *check_functions(image, functions, instructions),
              *check_code_between(image, functions, instructions),
              *check_guarded(image, functions, instructions, expected)]
    return [f"{file_name}: {error}" for error in errors]


def check_program(image):
    """Everything that is wrong with a program, as sentences."""
    if image.machine != AMD64 or image.magic != PE32_PLUS or image.subsystem != CONSOLE:
        yield f"machine {image.machine:#x}, subsystem {image.subsystem}: expected x86-64, console"
    for bit, meaning in CHARACTERISTICS.items():
        if bit != INTEGRITY and not image.characteristics & bit:
            yield f"{meaning} not set"
    for module in sorted(set(image.imports()) - SYSTEM_LIBRARIES):
        yield f"imports from {module}, which is no part of Windows"
    yield from check_version(image)
    yield from check_sections(image)


def expectations(kernel, declarations):
    """Of each image, by file name. `declarations`: the text of zpklib's header."""
    exported = set(re.findall(r"NTAPI (ZPk\w+)\(", declarations))
    if len(exported) != 25:
        sys.exit(f"zpklib.h declares {len(exported)} functions: expected 25")
    return {
        "zpklib.sys": Expected("ZPkDriverEntry", {"ntoskrnl.exe": kernel}, exported, set()),
        "zpregflt.sys": Expected(
            "FxDriverEntry",
            {"ntoskrnl.exe": kernel, LOADER: {"WdfVersionBind", "WdfVersionUnbind"},
             "zpklib.sys": exported},
            set(), {"PlatformCopyProtected"}),
    }


def load(arguments, path):
    """The image, its functions and its instructions."""
    image = Image(path.read_bytes())
    return (image, read_functions(arguments.pdbutil, image, path.with_suffix(".pdb")),
            read_instructions(arguments.objdump, image, path))


def describe(file_name, image, functions):
    imports = [f"{len(names)} of {module}" for module, names in image.imports().items()]
    return (f"{file_name}: {len(functions)} functions, {len(image.runtime_functions())} of them "
            f"with unwind data; imports {', '.join(imports)}; {len(image.exports()[1])} exports, "
            f"{len(image.relocations())} relocations")


def add_arguments(parser):
    for tool in ("nm", "objdump", "pdbutil"):
        parser.add_argument(f"--{tool}", required=True, help=f"llvm-{tool}")
    parser.add_argument("--kernel-library", required=True, help="import library of ntoskrnl.exe")
    parser.add_argument("--header", required=True, type=Path, help="zpklib.h")
    parser.add_argument("--program", required=True, type=Path)
    parser.add_argument("images", nargs="+", type=Path)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    add_arguments(parser)
    arguments = parser.parse_args()
    kernel = kernel_exports(arguments.nm, arguments.kernel_library)
    expected = expectations(kernel, arguments.header.read_text())
    errors = []
    for path in arguments.images:
        image, functions, instructions = load(arguments, path)
        errors += check(image, functions, instructions, expected[path.name], path.name)
        print(describe(path.name, image, functions))
    program = Image(arguments.program.read_bytes())
    errors += [f"{arguments.program.name}: {error}" for error in check_program(program)]
    if errors:
        sys.exit("\n".join(errors))


if __name__ == "__main__":
    main()
