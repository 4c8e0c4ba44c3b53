"""The log sites of a finished shared library, read from its file."""

import dataclasses
import re
import struct

PREFIX = "vekmsg_log_"
WORDS = 16  # of a LogSite


@dataclasses.dataclass(frozen=True)
class Site:
    module: str
    severity: int
    source: str
    signature: str
    line: int
    ordinal: int  # among the sites of this line and function, from 0


class _Elf:
    """Just enough: sections, and what a word of a writable one holds once the loader has been there."""

    def __init__(self, path):
        self._bytes = path.read_bytes()
        self.word = 8 if self._bytes[4] == 2 else 4
        is64 = self.word == 8
        offset, = struct.unpack_from("<Q" if is64 else "<I", self._bytes, 40 if is64 else 32)
        size, count, names = struct.unpack_from("<HHH", self._bytes, 58 if is64 else 46)
        layout = "<IIQQQQIIQQ" if is64 else "<IIIIIIIIII"
        headers = [struct.unpack_from(layout, self._bytes, offset + i * size) for i in range(count)]
        # name, type, flags, address, offset, size ...
        self._sections = {self._text(headers[names][4] + header[0]): header for header in headers}
        self._addends = self._read_addends() if is64 else {}

    def _read_addends(self):
        """Of relative relocations, by place: on x86-64 they stand beside the word, on i386 in it."""
        found = {}
        header = self._sections[".rela.dyn"]
        for place, info, addend in struct.iter_unpack("<QQq", self._bytes[header[4]:header[4] + header[5]]):
            if info == 8:  # R_X86_64_RELATIVE
                found[place] = addend
        return found

    def _text(self, offset):
        return self._bytes[offset:self._bytes.index(b"\0", offset)].decode("latin-1")

    def sections(self):
        return {name: (header[3], header[5]) for name, header in self._sections.items()}

    def _offset(self, address):
        for header in self._sections.values():
            if header[3] and header[3] <= address < header[3] + header[5]:
                return header[4] + address - header[3]
        raise ValueError(f"no section holds {address:#x}")

    def number(self, address):
        if address in self._addends:
            return self._addends[address]
        return struct.unpack_from("<Q" if self.word == 8 else "<I", self._bytes, self._offset(address))[0]

    def text(self, address):
        return self._text(self._offset(self.number(address)))

    def constants(self):
        """All constant bytes, as text."""
        return "".join(self._bytes[header[4]:header[4] + header[5]].decode("latin-1")
                       for name, header in self._sections.items() if name.startswith(".rodata"))


def comparable(signature):
    """What all compilers agree on; the captures of the tests compare the same."""
    function, parenthesis, parameters = signature.partition("(")
    whole = function + parenthesis + re.sub(r"\w*::", "", parameters)
    return whole.replace(" ", "").replace("libcpp::", "")


def read(path):
    """All sites of the library, and its constant bytes."""
    elf = _Elf(path)
    sites, seen = [], {}
    for name, (address, size) in elf.sections().items():
        if not name.startswith(PREFIX):
            continue
        for place in range(address, address + size, WORDS * elf.word):
            signature = elf.text(place + 3 * elf.word)
            line = elf.number(place + 4 * elf.word)
            key = (name, signature, line)
            sites.append(Site(name[len(PREFIX):], elf.number(place) & 0xFFFF, elf.text(place + 2 * elf.word),
                              signature, line, seen.get(key, 0)))
            seen[key] = seen.get(key, 0) + 1
    return sites, elf.constants()
