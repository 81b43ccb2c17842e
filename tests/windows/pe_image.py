"""Reads PE images of 64-bit Windows."""
import struct
from collections import namedtuple

Section = namedtuple("Section", "name address size flags offset file_size")
RuntimeFunction = namedtuple("RuntimeFunction", "begin end unwind")
# Unwind data of one function: `handler` is 0 without one, `scopes` its guarded ranges.
UnwindInfo = namedtuple("UnwindInfo", "version flags handler scopes")
Scope = namedtuple("Scope", "begin end filter target")

EXPORT, IMPORT, RESOURCE, EXCEPTION, RELOCATION, TLS, DELAY_IMPORT = 0, 1, 2, 3, 5, 9, 13
SECTION_CODE, SECTION_EXECUTE, SECTION_WRITE = 0x20, 0x20000000, 0x80000000
HANDLER_FLAGS, CHAINED_FLAG = 0x3, 0x4


class BadImage(Exception):
    """The bytes are no image, or refer to places that it does not have."""


class Image:
    """An image as it lies in its file; addresses are relative to where it is loaded."""

    def __init__(self, data):
        self.data = bytes(data)
        header = self.unpack("<I", 0x3C)[0]
        if self.data[header:header + 4] != b"PE\0\0":
            raise BadImage("no PE signature")
        self.machine, sections, _, _, _, optional_size, self.file_flags = self.unpack(
            "<HHIIIHH", header + 4)
        self.optional = header + 24
        self.magic = self.unpack("<H", self.optional)[0]
        self.entry = self.unpack("<I", self.optional + 16)[0]
        self.base = self.unpack("<Q", self.optional + 24)[0]
        self.size = self.unpack("<I", self.optional + 56)[0]
        self.checksum, self.subsystem, self.characteristics = self.unpack(
            "<IHH", self.optional + 64)
        self.sections = [self._section(self.optional + optional_size + 40 * i)
                         for i in range(sections)]

    def unpack(self, form, offset):
        try:
            return struct.unpack_from(form, self.data, offset)
        except struct.error as error:
            raise BadImage(f"nothing at file offset {offset:#x}") from error

    def _section(self, offset):
        name, size, address, file_size, file_offset, flags = self.unpack("<8s4I12xI", offset)
        return Section(name.rstrip(b"\0").decode(), address, size, flags, file_offset, file_size)

    def section_at(self, address):
        """The section that holds the address, or None."""
        for section in self.sections:
            if section.address <= address < section.address + section.size:
                return section
        return None

    def is_code(self, address):
        section = self.section_at(address)
        return section is not None and section.flags & SECTION_EXECUTE != 0

    def offset(self, address):
        section = self.section_at(address)
        if section is None or address - section.address >= section.file_size:
            raise BadImage(f"nothing at address {address:#x}")
        return section.offset + address - section.address

    def read(self, form, address):
        return self.unpack(form, self.offset(address))

    def text(self, address):
        start = self.offset(address)
        return self.data[start:self.data.index(b"\0", start)].decode("latin-1")

    def directory(self, index):
        """Address and size of a data directory."""
        return self.unpack("<II", self.optional + 112 + 8 * index)

    def imports(self):
        """Of each module the names imported from it, by the addresses of their slots."""
        modules = {}
        descriptor = self.directory(IMPORT)[0]
        while descriptor != 0:
            names, _, _, module, slots = self.read("<5I", descriptor)
            if module == 0:
                break
            modules.setdefault(self.text(module), {}).update(self._imported_names(names, slots))
            descriptor += 20
        return modules

    def _imported_names(self, names, slots):
        imported = {}
        while (value := self.read("<Q", names)[0]) != 0:
            by_number = value >> 63
            imported[slots] = f"#{value & 0xFFFF}" if by_number else self.text(value + 2)
            names, slots = names + 8, slots + 8
        return imported

    def exports(self):
        """The module's own name, and the address of each exported name."""
        address, _ = self.directory(EXPORT)
        if address == 0:
            return "", {}
        module, _, _, count, functions, names, numbers = self.read("<12xI6I", address)
        found = {}
        for i in range(count):
            name = self.text(self.read("<I", names + 4 * i)[0])
            number = self.read("<H", numbers + 2 * i)[0]
            found[name] = self.read("<I", functions + 4 * number)[0]
        return self.text(module), found

    def relocations(self):
        """Pairs of type and address."""
        address, size = self.directory(RELOCATION)
        end, found = address + size, []
        while address < end:
            page, block = self.read("<II", address)
            if block < 8:
                raise BadImage(f"relocation block of {block} bytes")
            entries = self.read(f"<{(block - 8) // 2}H", address + 8)
            found += [(entry >> 12, page + (entry & 0xFFF)) for entry in entries if entry >> 12]
            address += block
        return found

    def runtime_functions(self):
        address, size = self.directory(EXCEPTION)
        return [RuntimeFunction(*self.read("<3I", address + 12 * i)) for i in range(size // 12)]

    def unwind_info(self, address):
        """Of the function; of a later part of one, what its first part says."""
        head, _, codes = self.read("<3Bx", address)
        version, flags = head & 7, head >> 3
        behind = address + 4 + 2 * (codes + codes % 2)
        if flags & CHAINED_FLAG:
            return self.unwind_info(RuntimeFunction(*self.read("<3I", behind)).unwind)
        if not flags & HANDLER_FLAGS:
            return UnwindInfo(version, flags, 0, [])
        handler, count = self.read("<II", behind)
        scopes = [Scope(*self.read("<4I", behind + 8 + 16 * i)) for i in range(count)]
        return UnwindInfo(version, flags, handler, scopes)

    def jump_slot(self, address):
        """The slot that the import thunk at the address jumps through, or None."""
        operation, distance = self.read("<Hi", address)
        return address + 6 + distance if operation == 0x25FF else None

    def resource_types(self):
        """Of each resource type the bytes of its first resource."""
        root, _ = self.directory(RESOURCE)
        if root == 0:
            return {}
        return {kind: self._first_resource(root, root + (child & 0x7FFFFFFF))
                for kind, child in self._resource_entries(root)}

    def _resource_entries(self, directory):
        names, numbers = self.read("<12xHH", directory)
        return [self.read("<II", directory + 16 + 8 * i) for i in range(names + numbers)]

    def _first_resource(self, root, directory):
        child = 0x80000000 | directory - root
        while child & 0x80000000:
            child = self._resource_entries(root + (child & 0x7FFFFFFF))[0][1]
        address, size = self.read("<II", root + child)
        start = self.offset(address)
        return self.data[start:start + size]
