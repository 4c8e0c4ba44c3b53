"""What codec_pipe has to answer to a case when the library does what docs/wire-format.md says. The forms of cases and
answers stand at the head of codec_pipe.cpp. An answer has no place for the bytes that reading a payload took: they are
in the record about the bytes behind it, and show in the tree."""

import struct
from typing import NamedTuple

import wire_codec as wire
from wire_codec import BINARY, COMPLEX, STRING, UINT

OWN, LISTENER = b"own", b"listener"
PEERS = (b"peer", b"abc", b"a component", "caf\u00e9 \u2192 bar".encode(), b"n" * 250, b"long " * 300)
SEVERITIES = {"E": 3, "W": 4, "D": 7}

number = struct.Struct(">I").pack
node = struct.Struct(">IB").pack
number_node = struct.Struct(">IBI").pack


def text(value):
    return number(len(value)) + value


class Answer(NamedTuple):
    bytes: bytes
    is_accepted: bool
    records: list


def tree_parts(element, parts):
    tag, kind, value = element
    if kind == UINT:
        parts.append(number_node(tag, kind, value))
    elif kind == COMPLEX:
        parts.append(number_node(tag, kind, len(value)))
        for child in value:
            tree_parts(child, parts)
    elif kind in (STRING, BINARY):
        parts.append(number_node(tag, kind, len(value)))
        parts.append(value)
    else:
        parts.append(node(tag, kind))


def tree(element):
    parts = []
    tree_parts(element, parts)
    return b"".join(parts)


def fields(message):
    return text(message.destination) + text(message.source) + number(message.time_to_live) + text(message.schema)


def answer(parts, listed, is_accepted):
    return Answer(parts + records(listed), bool(is_accepted), listed)


def records(listed):
    return number(len(listed)) + b"".join([
        bytes([SEVERITIES[severity]]) + text(line.encode("utf-8", "surrogateescape")[:wire.MOST_RECORD])
        for severity, line in listed])


def arrived(blocks):
    return number(len(blocks)) + b"".join(bytes([peer]) + text(block) for peer, block in blocks)


def payload(encoded, listed):
    """The answer about a payload, and its tree for what comes next."""
    item, _, _ = wire.decode_item(encoded)
    element, decoding = wire.decode_payload(encoded)
    listed += decoding
    is_good = b"\0" if item is None else b"\1"
    return (is_good + b"\0" if element is None else is_good + b"\1" + tree(element)), element


def send(message, listed, element=None, came_with=None):
    """(whether it is sent, the blocks that arrive). Without an element the payload stays encoded as it came, behind
    header items of so many bytes."""
    if not message.destination:
        listed.append(("E", "VekmsgTerminalImpl_::sendMessage() null destination"))
        return False, []
    if message.destination == OWN:
        listed.append(("E", f"Can't send a message to itself ({OWN.decode()})"))
        return False, []
    if message.destination not in PEERS:
        listed.append(("D", "VekmsgConnection_::start() Can't start without a socket"))
        return False, []
    message = message._replace(source=message.source or OWN)
    if element is None:
        written = wire.rewrite_message(message, came_with, listed)
    else:
        written = wire.write_message(message, element, listed)
    if written is None:
        return False, []
    return True, [(PEERS.index(message.destination), wire.encode_block(wire.MESSAGE_BLOCK, written))]


def answer_element(encoded):
    listed = []
    rendered, element = payload(encoded, listed)
    return answer(rendered, listed, element is not None)


def answer_item(encoded):
    """As answer_element(), but it is accepted when the item alone is whole."""
    return answer_element(encoded)._replace(is_accepted=wire.decode_item(encoded)[0] is not None)


def take(message, listed, peer, came_with):
    """(whether the application gets the message, the blocks that arrive elsewhere because of it)"""
    own, destination, source = OWN.decode(), wire.printed(message.destination), wire.printed(message.source)
    if message.destination != OWN:
        return False, forward(message, listed, peer, came_with)
    reply = wire.ping_reply(message)
    if reply is None:
        return True, []
    is_sent, blocks = send(reply, listed, came_with=came_with)
    if not is_sent:
        listed.append(("W", f"{own} failed to respond to ping from {peer} with dest {destination}, src {source}"))
    return False, blocks


def forward(message, listed, peer, came_with):
    own, destination, source = OWN.decode(), wire.printed(message.destination), wire.printed(message.source)
    if message.time_to_live == 0:
        listed.append(("W", f"{own} can't route a message from {peer} because TTL = 0, dest {destination} src "
                            f"{source}"))
        return []
    is_sent, blocks = send(message._replace(time_to_live=message.time_to_live - 1), listed, came_with=came_with)
    if not is_sent:
        if destination and not source:
            source = own
        listed.append(("W", f"{own} failed to route a message from {peer} with dest {destination}, src {source}, TTL "
                            f"{message.time_to_live}"))
    return blocks


def answer_message(encoded):
    """What becomes of a message block from the first peer."""
    message, listed = wire.decode_message(encoded)
    if message is None:
        listed.append(("W", f"{OWN.decode()} deserializer failed to handle data from {PEERS[0].decode()}"))
        return answer(b"\0" + arrived([]), listed, False)
    came_with = len(encoded) - len(message.payload)
    is_given, blocks = take(message, listed, PEERS[0].decode(), came_with)
    if not is_given:
        return answer(b"\0" + arrived(blocks), listed, True)
    rendered, element = payload(message.payload, listed)
    is_sent, blocks = send(message._replace(destination=PEERS[1]), listed, element, came_with)
    parts = b"\1" + fields(message) + text(message.payload) + rendered + bytes([is_sent])
    return answer(parts + arrived(blocks), listed, True)


def answer_writing(message, element):
    listed = []
    element = wire.settled(element, listed)
    is_sent, blocks = send(message, listed, element)
    return answer(bytes([is_sent]) + arrived(blocks), listed, is_sent)


def answer_stream(stream, piece, peer=None):
    """What becomes of a new connection that gets its bytes in pieces, each read before the next one comes. `peer` is
    who it was opened to, when it is not the peer who opens it."""
    reader = wire.Reader(OWN.decode(), peer)
    reader.read(stream)
    told, messages, arrivals = {}, [], []
    for at, record in reader.stream_records:
        told.setdefault((at - 1) // piece, []).append(record)
    is_closed = reader.is_refused and not reader.is_cut
    last = (reader.end - 1) // piece if is_closed else len(stream)
    if reader.peer is None:
        if reader.named_at == 0:
            told.setdefault(last, []).append(("D", f"Deleting unresolved connection at {OWN.decode()}"))
    elif is_closed and (reader.named_at - 1) // piece == last:
        told[last].append(("D", f"Deleting unresolved connection at {OWN.decode()}"))
    elif is_closed:
        told[last].append(("D", f"Deleting active connection between {OWN.decode()} and {reader.peer}"))
    for block in reader.blocks:
        listed = told.setdefault((block.at - 1) // piece, [])
        listed += block.records
        if block.message is not None:
            is_given, more = take(block.message, listed, reader.peer, block.came_with)
            arrivals += more
            if is_given:
                messages.append(block.message)
    if reader.peer is not None and not is_closed:
        told.setdefault(last, []).append(("D", f"Deleting active connection between {OWN.decode()} and {reader.peer}"))
    listed = [record for _, group in sorted(told.items(), key=lambda entry: entry[0]) for record in group]
    parts = number(len(messages)) + b"".join([fields(message) + text(message.payload) for message in messages])
    return answer(parts + bytes([is_closed]) + gathered(arrivals), listed, not reader.is_refused)


def answer_opening(stream, piece):
    number_message = wire.Message(LISTENER, OWN, 3, b"", wire.encode_element((1, UINT, 0)))
    opening = wire.name_block(OWN) + wire.message_block(number_message)
    answered = answer_stream(stream, piece, LISTENER.decode())
    return answered._replace(bytes=text(opening) + answered.bytes)


def gathered(blocks):
    """What each peer has got when the answer tells it only once."""
    return arrived([(peer, b"".join([block for to, block in blocks if to == peer]))
                    for peer in sorted({to for to, _ in blocks})])


def answer_name(name):
    return answer(text(wire.name_block(name)), [], True)
