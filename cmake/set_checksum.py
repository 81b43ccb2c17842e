#!/usr/bin/env python3
"""Writes the checksum of a PE image, which linkers leave at 0 and the kernel insists on."""
import struct
import sys


def checksum_offset(image):
    """Where the optional header keeps the checksum."""
    return struct.unpack_from("<I", image, 0x3C)[0] + 24 + 64


def compute_checksum(image):
    """The 16-bit one's complement sum of the image without its checksum field, plus its length."""
    offset = checksum_offset(image)
    padded = image[:offset] + bytes(4) + image[offset + 4:] + bytes(len(image) % 2)
    total = sum(struct.unpack(f"<{len(padded) // 2}H", padded))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total + len(image)


def main():
    path = sys.argv[1]
    with open(path, "rb") as file:
        image = bytearray(file.read())
    struct.pack_into("<I", image, checksum_offset(image), compute_checksum(image))
    with open(path, "wb") as file:
        file.write(image)


if __name__ == "__main__":
    main()
