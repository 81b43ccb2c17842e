#!/usr/bin/env python3
"""Puts faults into copies of the kernel headers and sees that check_layout.py names them.

The arguments are those of check_layout.py.
"""
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# Header, what it says, what it says then, and what the check must answer.
FAULTS = [
    ("wdm.h", "    ULONG Tag;\n    ULONG Size;\n", "    ULONG Size;\n    ULONG Tag;\n",
     "GENERAL_LOOKASIDE.Tag: at 44 here, at 40 in MinGW-w64"),
    ("registry_notifications.h", "    KPROCESSOR_MODE CheckAccessMode;\n", "",
     "REG_CREATE_KEY_INFORMATION_V1: 128 bytes here, 136 in MinGW-w64"),
    ("registry_notifications.h", "RegNtPreQueryKey = 7", "RegNtPreQueryKey = 70",
     "RegNtPreQueryKey: 0x46 here"),
    ("ntdef.h", "struct GUID {", "struct UNHEARD_OF {\n    int x;\n};\n\nstruct GUID {",
     "UNHEARD_OF: MinGW-w64 declares no such structure"),
    ("ntdef.h", "    USHORT MaximumLength;\n    PWSTR", "    USHORT Maximum;\n    PWSTR",
     "UNICODE_STRING.Maximum: at 2 here, at None in MinGW-w64"),
    ("ntdef.h", "ULONG OBJ_INHERIT = 0x2", "ULONG OBJ_INHERIT = 2 + 2",
     "OBJ_INHERIT: expected one literal"),
]


def with_fault(arguments, header, old, new):
    """What the check says when one header of the project has a fault."""
    headers = Path(arguments[arguments.index("--headers") + 1])
    with tempfile.TemporaryDirectory() as directory:
        copy = Path(shutil.copytree(headers, Path(directory) / "include"))
        text = (copy / header).read_text()
        if old not in text:
            sys.exit(f"{header} does not contain: {old}")
        # What the headers assert themselves is not what is tested.
        text = re.sub(r"^static_assert\(.*?\);", "", text.replace(old, new), flags=re.M | re.S)
        (copy / header).write_text(text)
        command = [argument if argument != str(headers) else str(copy) for argument in arguments]
        checker = Path(__file__).with_name("check_layout.py")
        return subprocess.run([sys.executable, str(checker), *command], capture_output=True,
                              text=True, check=False)


def main():
    failed = False
    for header, old, new, answer in FAULTS:
        result = with_fault(sys.argv[1:], header, old, new)
        if result.returncode == 0 or answer not in result.stderr:
            print(f"expected: {answer}\nfound: {result.stderr}")
            failed = True
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
