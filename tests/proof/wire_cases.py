"""Cases for codec_pipe: well-formed ones, odd ones that a reader has to take, and damaged ones. The same random source
gives the same cases."""

import wire_codec as wire
from wire_answers import OWN, PEERS
from wire_codec import BINARY, COMPLEX, STRING, UINT, UNDEFINED, Message

LENGTHS = (0, 1, 2, 3, 4, 5, 6, 7, 8, 11, 12, 13, 16, 255, 256, 9396, 9399, 9400, 9401, 0x7FFF, 0x8000, 0xFFFE, 0xFFFF)
NUMBERS = (0, 1, 2, 255, 256, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)
TAGS = (0, 1, 2, 3, 4, 5, 9, 0x7FFF, 0x8000, 0xFFFE, 0xFFFF)
NAMES = (OWN, *PEERS, b"nobody", b"", b"ow", b"own ", b"OWN", b"\xff\xfe", b"%s%n", b"a\nb\x01")
SCHEMAS = (b"", b"urn:demo:reading", wire.PING_REQUEST, wire.PING_REPLY, wire.PING_REQUEST.lower(), b"s" * 300, b"%d")


class Cases:
    def __init__(self, source):
        self.source = source
        self.random = source.random
        self.below = source.randrange
        self.pick = source.choice

    # Trees

    def tag(self):
        return self.below(6) if self.random() < 0.7 else self.pick(TAGS) if self.random() < 0.5 else self.below(0x10000)

    def number(self):
        return self.pick(NUMBERS) if self.random() < 0.5 else self.source.getrandbits(32)

    def size(self):
        """Of a value: mostly a few bytes, now and then at the limit."""
        chance = self.random()
        if chance < 0.95:
            return self.below(12)
        return self.below(300) if chance < 0.995 else self.pick((9300, 9390, 9398, 9399, 9400))

    def characters(self, size):
        return self.source.randbytes(size).replace(b"\0", b"z")

    def leaf(self):
        kind = self.pick((UINT, UINT, STRING, BINARY))
        if kind == UINT:
            return self.tag(), kind, self.number()
        size = self.size()
        if kind == STRING:
            return self.tag(), kind, self.characters(min(size, 9399))
        return self.tag(), kind, self.source.randbytes(size)

    def tree(self, depth=None):
        if depth is None:
            depth = self.pick((0, 0, 1, 1, 1, 2, 2, 3, 4))
        if depth == 0:
            return self.leaf()
        children = [self.tree(self.below(depth)) for _ in range(1 + self.below(5))]
        return self.tag(), COMPLEX, children

    def chain(self, depth):
        """One complex element in the other."""
        element = self.leaf()
        for _ in range(depth):
            element = (self.tag(), COMPLEX, [element])
        return element

    # Bytes of elements

    def odd_element(self, element, oddness):
        """The bytes of an element, each node with a chance of something that no writer writes."""
        tag, kind, value = element
        if kind == COMPLEX:
            content = b"".join([self.odd_element(child, oddness) for child in value])
        elif kind == UINT:
            content = value.to_bytes(4, "big")
        else:
            content = value + b"\0" if kind == STRING else value
        if self.random() >= oddness:
            return self.headers(tag, 0, 6 + len(content), 0, kind, len(content)) + content
        return self.odd_headers(tag, kind, self.odd_content(kind, content))

    def odd_content(self, kind, content):
        if self.random() < 0.4:
            return content
        if kind == UINT:
            return self.source.randbytes(self.below(9))
        if kind == COMPLEX:
            return self.pick((b"", content + self.source.randbytes(1 + self.below(7))))
        if kind == STRING:
            filled = content[:-1] + self.characters(9400)[len(content) - 1:]
            return self.pick((b"", content[:-1], content + content, filled))
        return content + self.source.randbytes(self.pick((1, 9400, 9401 - len(content) % 9401)))

    def odd_headers(self, tag, kind, content):
        outer_type = outer_more = content_tag = 0
        length = len(content)
        chance = self.random()
        if chance < 0.3:
            outer_type = self.pick(TAGS)
        elif chance < 0.5:
            outer_more = self.pick((-7, -6, -1, 1, 2, 6, 12, 100))
        elif chance < 0.6:
            content_tag = self.pick(TAGS)
        elif chance < 0.7:
            kind = self.pick((0, 1, 2, 3, 4, 5, 9, 0xFFFF))
        elif chance < 0.8:
            length = max(0, length + self.pick((-6, -1, 1, 6)))
        return self.headers(tag, outer_type, 6 + len(content) + outer_more, content_tag, kind, length) + content

    @staticmethod
    def headers(*fields):
        """Of an element; lengths that do not fit lose what is too much."""
        return wire.element_headers.pack(*[field & 0xFFFF for field in fields])

    def damaged(self, data):
        for _ in range(self.pick((1, 1, 1, 2, 3))):
            data = self.pick(DAMAGES)(self, data)
        return data

    def flip(self, data):
        at = self.below(len(data) or 1)
        return data[:at] + bytes([byte ^ 1 << self.below(8) for byte in data[at:at + 1]]) + data[at + 1:]

    def set_byte(self, data):
        at = self.below(len(data) or 1)
        return data[:at] + self.source.randbytes(1) + data[at + 1:]

    def truncate(self, data):
        return data[:self.below(len(data) + 1)]

    def extend(self, data):
        return data + self.source.randbytes(1 + self.below(14))

    def insert(self, data):
        at = self.below(len(data) + 1)
        return data[:at] + self.source.randbytes(1 + self.below(6)) + data[at:]

    def cut_out(self, data):
        at = self.below(len(data) + 1)
        return data[:at] + data[at + 1 + self.below(12):]

    def splice(self, data):
        start, at = self.below(len(data) + 1), self.below(len(data) + 1)
        return data[:at] + data[start:start + self.below(30)] + data[at:]

    def set_field(self, data):
        at = self.below(len(data) + 1) & ~1
        return data[:at] + self.pick(LENGTHS).to_bytes(2, "big") + data[at + 2:]

    def move_field(self, data):
        """A field of two bytes a little larger or smaller, as lengths that are just wrong are."""
        at = self.below(len(data) + 1) & ~1
        field = int.from_bytes(data[at:at + 2], "big") + self.pick((-6, -4, -2, -1, 1, 2, 4, 6)) & 0xFFFF
        return data[:at] + field.to_bytes(2, "big") + data[at + 2:]

    def item(self):
        """One item, or one in the other, of which the lengths just fit or just do not."""
        if self.random() < 0.4:
            data = self.item_around(self.tag(), self.source.randbytes(self.below(8)))
        else:
            content = self.item_around(self.pick((0, 0, 0, 0, 1)), self.source.randbytes(self.below(12)))
            data = self.item_around(self.tag(), content)
        return data[:self.below(14)] if self.random() < 0.1 else data

    def item_around(self, tag, value):
        chance = self.random()
        length = len(value)
        if chance < 0.2:
            length = max(0, length + self.pick((-1, 1)))
        elif chance < 0.25:
            length = self.pick(LENGTHS)
        return wire.item_header.pack(tag, self.below(6), length) + value

    def encoded(self):
        """The bytes of a payload."""
        chance = self.random()
        if chance < 0.25:
            return wire.encode_element(self.tree())
        if chance < 0.60:
            return self.odd_element(self.tree(), self.pick((0.05, 0.2, 0.5)))
        if chance < 0.90:
            return self.damaged(self.odd_element(self.tree(), self.pick((0, 0, 0.1))))
        if chance < 0.96:
            return self.source.randbytes(self.below(40))
        if chance < 0.99:
            return wire.encode_element(self.tree()) + self.source.randbytes(self.below(8))
        return self.odd_element(self.chain(self.below(60)), self.pick((0, 0, 0.02)))

    def large(self):
        """The bytes of a payload that is deep, wide or long."""
        chance = self.random()
        if chance < 0.3:
            data = self.odd_element(self.chain(self.below(5400)), self.pick((0, 0, 0.0003)))
        elif chance < 0.6:
            value = self.source.randbytes(self.pick((9398, 9399, 9400, 9401)))
            value = value if self.random() < 0.5 else value.replace(b"\0", b"z")
            data = self.headers(self.tag(), 0, 6 + len(value), 0, self.pick((STRING, BINARY)), len(value)) + value
        else:
            leaves = [self.leaf() for _ in range(self.below(1500))] or [self.leaf()]
            data = self.odd_element((self.tag(), COMPLEX, leaves), self.pick((0, 0, 0.001)))
        return (data if self.random() < 0.7 else self.damaged(data))[:0xFFFF]

    # Messages

    def header_text(self, value, oddness):
        if self.random() >= oddness:
            return value + b"\0"
        return self.pick((value, value + b"\0" + self.characters(self.below(9)), b"", b"\0", value + b"\0\0"))

    def header_item(self, tag, kind, value, oddness):
        length = len(value)
        if self.random() < oddness:
            chance = self.random()
            if chance < 0.3:
                tag = self.pick(TAGS)
            elif chance < 0.6:
                kind = self.below(6)
            else:
                length = max(0, length + self.pick((-4, -1, 1, 100)))
        return wire.item_header.pack(tag, kind, length) + value

    def message_fields(self):
        destination = OWN if self.random() < 0.6 else self.pick(NAMES)
        source = PEERS[0] if self.random() < 0.5 else self.pick(NAMES)
        time_to_live = 3 if self.random() < 0.5 else self.pick(NUMBERS)
        return destination, source, time_to_live, self.pick(SCHEMAS)

    def message(self):
        """The payload of a message block."""
        destination, source, time_to_live, schema = self.message_fields()
        texts, items = self.pick(((0, 0), (0, 0), (0.1, 0.0), (0.3, 0.0), (0, 0.1), (0.1, 0.1)))
        number = time_to_live.to_bytes(4, "big")
        if self.random() < items:
            number = self.source.randbytes(self.below(7))
        data = b"".join((
            self.header_item(wire.DESTINATION, STRING, self.header_text(destination, texts), items),
            self.header_item(wire.SOURCE, STRING, self.header_text(source, texts), items),
            self.header_item(wire.TIME_TO_LIVE, UINT, number, items),
            self.header_item(wire.SCHEMA, STRING, self.header_text(schema, texts), items),
            self.encoded() if self.random() < 0.95 else b""))
        chance = self.random()
        if chance < 0.15:
            data = self.damaged(data)
        elif chance < 0.25:
            head = self.damaged(data[:50])
            data = head + data[50:]
        return data[:wire.MOST_READ]

    # What is written

    def excess(self, element):
        """A value that a writer cuts or refuses."""
        chance = self.random()
        if chance < 0.3:
            return self.tag(), STRING, self.characters(self.pick((9399, 9400, 9401, 20000)))
        if chance < 0.6:
            return self.tag(), BINARY, self.source.randbytes(self.pick((9400, 9401, 20000)))
        if chance < 0.8:
            return self.tag(), UNDEFINED, None
        children = element[2] if element[1] == COMPLEX else [element]
        return self.tag(), COMPLEX, [*children, (self.tag(), UNDEFINED, None)]

    def written(self):
        destination, source, time_to_live, schema = self.message_fields()
        if self.random() < 0.95:
            destination = self.pick(PEERS)
        element = self.tree()
        chance = self.random()
        if chance < 0.03:
            element = self.excess(element)
        elif chance < 0.035:
            element = self.sized(Message(destination, source or OWN, 0, schema, b""))
        elif chance < 0.036:
            element = self.chain(self.below(5300))
        return Message(destination, source, time_to_live, schema, b""), element

    def sized(self, message):
        """An element that brings the message near one of the limits."""
        limit = self.pick((wire.WARNED_ABOVE, wire.MOST_WRITTEN, wire.MOST_READ)) + self.pick((-1, 0, 1))
        left = limit - len(wire.encode_message(message)) - 12
        leaves = []
        while left > 9412:
            leaves.append((self.tag(), BINARY, self.source.randbytes(9000)))
            left -= 9012
        return self.tag(), COMPLEX, [*leaves, (self.tag(), BINARY, self.source.randbytes(max(0, left - 12)))]

    # Streams

    def name_block(self):
        chance = self.random()
        name = b"S-" + self.characters(self.below(20))
        if chance < 0.6:
            return wire.name_block(name)
        if chance < 0.7:
            return wire.encode_block(wire.NAME_BLOCK, name + b"\0" + self.source.randbytes(self.below(9)))
        if chance < 0.8:
            return wire.encode_block(wire.NAME_BLOCK, name[:self.below(5)] + self.pick((b"", b"\0")))
        if chance < 0.9:
            return wire.encode_block(self.pick((0, 1, 1, 1, 2, 3, 0xFFFF)), name)
        size = self.pick((9395, 9396, 9397, 9400, 9401, 0xFFFF))
        return wire.block_header.pack(wire.NAME_BLOCK, size) + b"S-" + b"n" * (size - 2)

    def stream_block(self):
        chance = self.random()
        if chance < 0.6:
            message = Message(OWN, b"S", 3, self.pick(SCHEMAS), wire.encode_element(self.tree()))
            return wire.encode_block(wire.MESSAGE_BLOCK, wire.encode_message(message)[:0xFFFF])
        if chance < 0.8:
            return wire.encode_block(wire.MESSAGE_BLOCK, self.message())
        kind = self.pick((0, 1, 3, 7, 0xFFFF))
        if chance < 0.95:
            return wire.encode_block(kind, self.source.randbytes(self.below(30)))
        size = self.pick((9395, 9396, 9397, 9400, 9401))
        return wire.encode_block(self.pick((2, kind)), self.source.randbytes(size))

    def stream(self):
        return self.in_pieces(self.without_rest_of_empty_name(self.blocks(self.name_block())))

    def opened_stream(self):
        return self.in_pieces(self.blocks(b""))

    def blocks(self, data):
        data += b"".join([self.stream_block() for _ in range(self.below(5))])
        if self.random() < 0.3:
            data = self.damaged(data)
        return data[:60000]

    def in_pieces(self, data):
        piece = len(data) or 1
        if self.random() < 0.3:
            piece = max(1 + self.below(64), len(data) // 40)
        return piece, data

    @staticmethod
    def without_rest_of_empty_name(data):
        """What follows an empty name is read or not as it happens to arrive."""
        reader = wire.Reader("")
        reader.read(data)
        return data[:reader.named_at] if reader.named_at and reader.peer is None else data

    def name(self):
        size = self.pick((1, 2, 3, 4, 8, 100, 9000, 9394, 9395, 9398, 9399, 9400, 9401, 12000))
        return self.characters(size)


DAMAGES = (Cases.flip, Cases.flip, Cases.set_byte, Cases.truncate, Cases.truncate, Cases.extend, Cases.insert,
           Cases.cut_out, Cases.splice, Cases.set_field, Cases.set_field, Cases.move_field, Cases.move_field)
