"""A second encoder and decoder of the wire form, written from docs/wire-format.md alone and not from the library: what
one of the two gets wrong, or the page leaves open, shows as a difference.

An element is a tuple (tag, type, value): a list of elements, a number, or bytes. A record is (severity, text)."""

import struct
import sys
from typing import NamedTuple

UNDEFINED, COMPLEX, UINT, STRING, BINARY = range(5)
NAME_BLOCK, MESSAGE_BLOCK = 1, 2
DESTINATION, SOURCE, TIME_TO_LIVE, SCHEMA = 1, 2, 3, 4
CONTENT = 0
TAG_NAMES = {DESTINATION: "VEKMSGTAG_DESTINATION_NAME", SOURCE: "VEKMSGTAG_SOURCE_NAME",
             TIME_TO_LIVE: "VEKMSGTAG_TIME_TO_LIVE", SCHEMA: "VEKMSGTAG_SCHEMA_URI"}
TYPE_NAMES = {STRING: "VEKMSG_STRING", UINT: "VEKMSG_UINT"}

ITEM_HEADER = 6
ELEMENT_HEADERS = 12
BLOCK_HEADER = 4
MOST_VALUE = 9400  # of a string with its NUL, of a binary, of a name with its NUL
MOST_READ = 9396  # payload of a block
MOST_WRITTEN = 65280  # of a message
MOST_NUMBER = 0xFFFFFFFF
MOST_LENGTH = 0xFFFF
WARNED_ABOVE = 9144  # a message that some readers refuse
MOST_RECORD = 2047

PING_REQUEST = b"VEK Pinger Request Format version 1.0"
PING_REPLY = b"VEK Pinger Reply Format version 1.0"

item_header = struct.Struct(">HHH")
block_header = struct.Struct(">HH")
element_headers = struct.Struct(">HHHHHH")

# Twelve bytes make one level, and a length field cuts off at 65535.
sys.setrecursionlimit(max(sys.getrecursionlimit(), 20000))


class Refused(Exception):
    """What was read cannot be used, with the record that says why."""

    def __init__(self, text):
        super().__init__(text)
        self.record = ("E", text)


class Unwritable(Exception):
    """A value that has no wire form. `record` is the library's, where a page's row gives one."""

    def __init__(self, text):
        super().__init__(text)
        self.record = ("E", text)


class Message(NamedTuple):
    destination: bytes
    source: bytes
    time_to_live: int
    schema: bytes
    payload: bytes


# Reading

def text_of(value):
    end = value.find(0)
    return bytes(value if end < 0 else value[:end])


def read_header(data, position, end):
    left = end - position
    if left < ITEM_HEADER:
        raise Refused(f"VekMessageBinary_::deserializeTtlvHeader() bytestreamLength {left} is too short")
    return item_header.unpack_from(data, position)


def read_item(data, position, end):
    """Tag, type and length of the item that stands at `position`, whose value fits in front of `end`."""
    tag, kind, length = read_header(data, position, end)
    left = end - position - ITEM_HEADER
    if length > left:
        raise Refused(f"VekMessageBinary_::deserializeTtlv() data length {length} is too large for remaining stream "
                      f"{left}")
    return tag, kind, length


def read_element(data, position, end, records):
    """The element at `position` and where the next one begins, which the content item decides alone."""
    tag, _, length = read_header(data, position, end)
    position += ITEM_HEADER
    if length > end - position:
        raise Refused(f"VekmsgElementBinary_::deserialize() tag {tag} length {length} is larger than allowed length "
                      f"{end - position}")
    content_tag, kind, length = read_item(data, position, position + length)
    position += ITEM_HEADER
    if content_tag != CONTENT:
        raise Refused(f"VekmsgElementBinary_::deserialize() for element {tag}, expecting VEKMSGTAG_ELEMENT_CONTENT, "
                      f"got {content_tag}")
    reader = READERS.get(kind)
    if reader is None:
        raise Refused(f"VekmsgElementBinary_::deserialize() tag {tag} has invalid data type {kind}")
    end = position + length
    return (tag, kind, reader(data, position, end, tag, records)), end


def tag_of(element):
    return element[0]


def read_complex(data, position, end, tag, records):
    elements = []
    while not elements or end - position >= ITEM_HEADER:
        element, position = read_element(data, position, end, records)
        elements.append(element)
    if position < end:
        records.append(("W", f"Tag {tag} has unused data of {end - position} bytes"))
    elements.sort(key=tag_of)
    return elements


def read_number(data, position, end, tag, records):
    if position == end:
        raise Refused(f"VekmsgElementBinary_::deserialize() tag {tag} of UINT type has an invalid length 0")
    if end - position > 4:
        records.append(("W", f"tag {tag} of UINT type has length {end - position}"))
        position = end - 4
    return int.from_bytes(data[position:end], "big")


def within_limit(position, end, tag, name):
    if end - position > MOST_VALUE:
        raise Refused(f"VekmsgElementBinary_::deserialize() tag {tag} of {name} type has a length {end - position} "
                      "exceeding the limit")


def read_string(data, position, end, tag, records):
    within_limit(position, end, tag, "STRING")
    return text_of(data[position:min(end, position + MOST_VALUE - 1)])


def read_binary(data, position, end, tag, records):
    within_limit(position, end, tag, "BINARY")
    return bytes(data[position:end])


READERS = {COMPLEX: read_complex, UINT: read_number, STRING: read_string, BINARY: read_binary}


def decode_element(data):
    """(element or None when it is refused, consumed bytes, records)"""
    records = []
    try:
        element, consumed = read_element(data, 0, len(data), records)
    except Refused as refused:
        return None, 0, [*records, refused.record]
    return element, consumed, records


def decode_payload(payload):
    """(element or None, records) for the application that asks for a message's payload."""
    element, consumed, records = decode_element(payload)
    if element is not None and consumed < len(payload):
        records.append(("W", f"VekMessageBinary_::getPayload(): used {consumed} bytes out of {len(payload)}"))
    return element, records


def decode_item(data):
    """(tag, type and value, or None when it is refused, consumed bytes, records)"""
    try:
        tag, kind, length = read_item(data, 0, len(data))
    except Refused as refused:
        return None, 0, [refused.record]
    end = ITEM_HEADER + length
    return (tag, kind, bytes(data[ITEM_HEADER:end])), end, []


def printed(text):
    """A text inside a record."""
    return text.decode("utf-8", "surrogateescape")


def read_message_item(data, position, wanted_tag, wanted_kind, suffix):
    tag, kind, length = read_item(data, position, len(data))
    name = TAG_NAMES[wanted_tag]
    if tag != wanted_tag:
        raise Refused(f"VekMessageBinary_::deserialize() Expecting {name} got {tag}{suffix}")
    if kind != wanted_kind:
        raise Refused(f"VekMessageBinary_::deserialize({name}) Expecting {TYPE_NAMES[wanted_kind]} got {kind}{suffix}")
    position += ITEM_HEADER
    return data[position:position + length], position + length


def read_message(data):
    value, position = read_message_item(data, 0, DESTINATION, STRING, "")
    destination = text_of(value)
    suffix = f" dest {printed(destination)}"
    value, position = read_message_item(data, position, SOURCE, STRING, suffix)
    source = text_of(value)
    suffix += f" src {printed(source)}"
    value, position = read_message_item(data, position, TIME_TO_LIVE, UINT, suffix)
    if len(value) != 4:
        raise Refused(f"VekMessageBinary_::deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length {len(value)}{suffix}")
    time_to_live = int.from_bytes(value, "big")
    value, position = read_message_item(data, position, SCHEMA, STRING, suffix)
    return Message(destination, source, time_to_live, text_of(value), bytes(data[position:]))


def decode_message(data):
    """(message or None, records)"""
    try:
        return read_message(data), []
    except Refused as refused:
        return None, [refused.record]


class MessageBlock(NamedTuple):
    at: int  # the bytes of the stream that have to come before it is read
    message: Message | None
    came_with: int  # bytes of header items
    records: list


class Reader:
    """What a component makes of the bytes of one connection, all that come before it ends. `peer` is given to the one
    that opened it; the acceptor learns it. Afterwards `blocks` are the messages and `stream_records` all records but
    theirs, with the bytes that have to come before them; `is_refused` tells that the connection has to be closed after
    `end` bytes, `is_cut` that this is because the stream itself ended inside a block."""

    def __init__(self, own, peer=None):
        self.own = own
        self.peer = peer
        self.blocks = []
        self.stream_records = []
        self.named_at = 0
        self.end = 0
        self.is_refused = self.is_cut = False
        self._data = b""
        self._position = 0
        self._needed = 0

    def read(self, data):
        self._data = data
        if self.peer is None:
            self._read_name()
        while not self.is_refused and self._position < len(data):
            self._read_block()
        self.end = self._needed if self.is_refused and not self.is_cut else len(data)

    def messages(self):
        return [block.message for block in self.blocks if block.message is not None]

    def records(self):
        """In the order of the bytes that they are about."""
        told = self.stream_records + [(block.at, record) for block in self.blocks for record in block.records]
        return [record for _, record in sorted(told, key=lambda entry: entry[0])]

    def _record(self, severity, text):
        self.stream_records.append((self._needed, (severity, text)))

    def _refuse(self, severity=None, text=None):
        if severity:
            self._record(severity, text)
        self.is_refused = True

    def _take(self, length):
        """The next bytes, or None when the stream ends before they are looked at."""
        needed = max(self._needed, self._position + length)
        if len(self._data) < needed:
            self.is_cut = True
            return self._refuse()
        self._needed = needed
        self._position += length
        return self._data[self._position - length:self._position]

    def _header(self):
        header = self._take(BLOCK_HEADER)
        return (None, 0) if header is None else block_header.unpack(header)

    def _read_name(self):
        kind, length = self._header()
        if kind is None:
            return
        if kind != NAME_BLOCK:
            return self._refuse("W", f"{self.own} is expecting VEK_COMPONENT_NAME. Got {kind}, length {length}")
        if length > MOST_VALUE:
            return self._refuse("E", f"VekmsgConnection_::processPollEvents() of {self.own} is getting "
                                     f"VEK_COMPONENT_NAME length {length}")
        if length > MOST_READ:
            self._record("W", f"VekSocket_::receive() requested data size {length} is greater than free space "
                              f"{MOST_READ}")
            if self._take(MOST_READ) is not None:
                self._refuse("E", f"VekmsgConnection_::extractEncodingPayload() data length {MOST_READ} is shorter "
                                  f"than the expected payload {length}")
            return
        payload = self._take(length)
        if payload is None:
            return
        self.named_at = self._position
        name = text_of(payload[:-1])
        if not name:
            return self._refuse("W", f"VekmsgTerminalImpl_::processPollEvents({self.own}) got a null peerName for an "
                                     "unresolved connection")
        self.peer = printed(name)
        if self._position == len(self._data):
            return
        self._needed = self._position + length
        if length < BLOCK_HEADER and self._needed <= len(self._data):
            self._refuse("E", f"VekmsgConnection_::extractEncodingHeader() data length {length} is too short for "
                              "encoding header")

    def _read_block(self):
        kind, length = self._header()
        if kind is None:
            return
        if kind != MESSAGE_BLOCK:
            return self._skip(kind, length)
        if length > MOST_READ:
            return self._refuse("E", f"connection {self.own} to {self.peer} received BINARY_ENCODED_MESSAGE of "
                                     f"{length} (too long)")
        payload = self._take(length)
        if payload is None:
            return
        message, records = decode_message(payload)
        if message is None:
            records.append(("W", f"{self.own} deserializer failed to handle data from {self.peer}"))
        came_with = 0 if message is None else length - len(message.payload)
        self.blocks.append(MessageBlock(self._needed, message, came_with, records))

    def _skip(self, kind, length):
        if length > MOST_READ:
            return self._refuse("E", f"Connection {self.own} to {self.peer} is expecing BINARY_ENCODED_MESSAGE but "
                                     f"got {kind} of length {length}. Failed")
        self._record("W", f"Connection {self.own} to {self.peer} expecting BINARY_ENCODED_MESSAGE but got {kind}, "
                          f"length {length}. Skipping the block")
        if self._take(length) is not None:
            self._record("W", f"Connection {self.own} to {self.peer} dropped encoding block type {kind}")


# Writing

def settled(element, records):
    """The element as it can be written, when an application asks for this one: text is cut, and what has no value is
    UNDEFINED."""
    tag, kind, value = element
    if kind == COMPLEX and value:
        return tag, kind, [settled(child, records) for child in value]
    if kind == STRING and len(value) >= MOST_VALUE:
        records.append(("W", f"VekmsgElementBinary_::setValue() string is longer than {MOST_VALUE}. Truncated"))
        return tag, kind, value[:MOST_VALUE - 1]
    if kind == BINARY and len(value) > MOST_VALUE:
        records.append(("E", f"VekmsgElementBinary_::setValue() binary length {len(value)} is too large. {MOST_VALUE} "
                             "max"))
    elif kind in (UINT, STRING, BINARY):
        return element
    return tag, UNDEFINED, None


def encode_element(element):
    tag, kind, value = element
    if kind not in WRITERS:
        raise Unwritable(f"VekmsgElementBinary_::serialize() invalid type {kind} for tag {tag}")
    written = WRITERS[kind](value)
    length = len(written)
    if length > MOST_LENGTH - ITEM_HEADER:
        raise Unwritable(f"tag {tag} has a value of {length} bytes")
    return element_headers.pack(tag, UNDEFINED, ITEM_HEADER + length, CONTENT, kind, length) + written


def write_complex(elements):
    if not elements:
        raise Unwritable("a complex value without elements")
    # From the last to the first: the last one that cannot be written is the one told.
    return b"".join(list(map(encode_element, sorted(elements, key=tag_of)[::-1]))[::-1])


def size_of(element):
    """Of its wire form; without a value, of its headers."""
    _, kind, value = element
    if kind == COMPLEX:
        return ELEMENT_HEADERS + sum(map(size_of, value))
    return ELEMENT_HEADERS + (4 if kind == UINT else len(value) + 1 if kind == STRING else len(value) if value else 0)


def write_number(number):
    if number > MOST_NUMBER:
        raise Unwritable(f"the number {number} has more than 32 bits")
    return number.to_bytes(4, "big")


def write_string(text):
    written = text_of(text) + b"\0"
    if len(written) > MOST_VALUE:
        raise Unwritable(f"a string of {len(written)} bytes")
    return written


def write_binary(value):
    if len(value) > MOST_VALUE:
        raise Unwritable(f"a binary of {len(value)} bytes")
    return value


WRITERS = {COMPLEX: write_complex, UINT: write_number, STRING: write_string, BINARY: write_binary}


def encode_item(tag, kind, value):
    if len(value) > MOST_LENGTH:
        raise Unwritable(f"item {tag} has a value of {len(value)} bytes")
    return item_header.pack(tag, kind, len(value)) + value


def encode_header(message):
    return b"".join((
        encode_item(DESTINATION, STRING, text_of(message.destination) + b"\0"),
        encode_item(SOURCE, STRING, text_of(message.source) + b"\0"),
        encode_item(TIME_TO_LIVE, UINT, write_number(message.time_to_live)),
        encode_item(SCHEMA, STRING, text_of(message.schema) + b"\0")))


def names_of(message):
    return f"({printed(message.source)} -> {printed(message.destination)})"


def check_size(message, size, records):
    if size > MOST_WRITTEN:
        raise Unwritable(f"Message {names_of(message)} size {size} exceeds the encoding limit")
    if size > WARNED_ABOVE:
        records.append(("W", f"Message {names_of(message)} size {size} could be too large for the peer"))


def encode_message(message, records=None):
    """The bytes of a message whose payload is encoded."""
    written = encode_header(message) + message.payload
    check_size(message, len(written), [] if records is None else records)
    return written


def write_message(message, element, records):
    """The bytes of a message with this payload, or None when it cannot be sent."""
    header = encode_header(message)
    size = len(header) + size_of(element)
    try:
        check_size(message, size, records)
        return header + encode_element(element)
    except Unwritable as failure:
        records.append(failure.record)
    if size <= MOST_WRITTEN:
        records.append(("E", f"Serialization of Message {names_of(message)} of {size} bytes failed. Free space "
                             f"{max(size + 256, 1024)}"))
    return None


def rewrite_message(message, came_with, records):
    """The bytes of a message that is passed on, whose header items took so many bytes when it came, or None."""
    more = len(encode_header(message)) - came_with
    if 0 < more <= BLOCK_HEADER:
        records.append(("E", f"Not enough header space {BLOCK_HEADER - more} left to encode message "
                             f"{names_of(message)} in a block"))
        return None
    return encode_message(message, records if more > BLOCK_HEADER else None)


def encode_block(kind, payload):
    return block_header.pack(kind, len(payload)) + payload


def name_block(name):
    return encode_block(NAME_BLOCK, name[:MOST_VALUE - 1] + b"\0")


def message_block(message):
    return encode_block(MESSAGE_BLOCK, encode_message(message))


def ping_reply(request):
    """The message that answers `request`, or None when it is no ping."""
    if request.schema != PING_REQUEST:
        return None
    return request._replace(destination=request.source, source=request.destination, schema=PING_REPLY)
