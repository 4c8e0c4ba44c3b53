"""Checks wire_codec.py with the worked example of the page that it was written from."""

import pathlib
import re
import unittest

import wire_codec as wire
from wire_codec import BINARY, COMPLEX, STRING, UINT, Message

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "wire-format.md"


def page_bytes(name):
    block = re.search(rf"```hex {name}\n(.*?)```", PAGE.read_text(), re.DOTALL).group(1)
    return bytes.fromhex("".join(line.split("|")[0] for line in block.splitlines()))


READING = (10, COMPLEX, [(1, UINT, 258), (2, STRING, b"room 4"), (3, BINARY, b"\x00\xff\x10"),
                         (4, COMPLEX, [(1, UINT, 1)])])
MESSAGE = Message(b"sensor", b"panel", 3, b"urn:demo:reading", wire.encode_element(READING))
NUMBER = bytes.fromhex("000a 0000 000a 0000 0002 0004 00000007")


def element(*fields, value=b""):
    return b"".join(field.to_bytes(2, "big") for field in fields) + value


def item(tag, kind, value):
    return wire.encode_item(tag, kind, value)


class WorkedExample(unittest.TestCase):
    def test_name_block_is_written_and_read(self):
        self.assertEqual(wire.name_block(b"panel"), page_bytes("name-block"))
        reader = wire.Reader("sensor")
        reader.read(page_bytes("name-block"))
        self.assertEqual((reader.peer, reader.records(), reader.is_refused), ("panel", [], False))

    def test_message_block_is_written_and_read(self):
        self.assertEqual(wire.message_block(MESSAGE), page_bytes("message-block"))
        reader = wire.Reader("sensor")
        reader.read(page_bytes("name-block") + page_bytes("message-block"))
        self.assertEqual((reader.messages(), reader.records(), reader.is_refused), ([MESSAGE], [], False))
        self.assertEqual(wire.decode_payload(reader.messages()[0].payload), (READING, []))

    def test_ping_is_answered(self):
        request = Message(b"sensor", b"panel", 3, wire.PING_REQUEST, wire.encode_element((1, UINT, 7)))
        self.assertEqual(wire.message_block(request), page_bytes("ping-request"))
        self.assertEqual(wire.message_block(wire.ping_reply(request)), page_bytes("ping-reply"))
        self.assertIsNone(wire.ping_reply(MESSAGE))

    def test_elements_that_are_read_and_never_written(self):
        self.assertEqual(wire.decode_element(page_bytes("short-uint")), ((10, UINT, 258), 14, []))
        self.assertEqual(wire.decode_element(page_bytes("long-uint")),
                         ((10, UINT, 7), 18, [("W", "tag 10 of UINT type has length 6")]))
        self.assertEqual(wire.decode_element(page_bytes("string-without-nul")), ((10, STRING, b"ok"), 14, []))
        self.assertEqual(wire.decode_element(page_bytes("unused-data")),
                         ((10, COMPLEX, [(1, UINT, 7)]), 31, [("W", "Tag 10 has unused data of 3 bytes")]))


class Elements(unittest.TestCase):
    def refused(self, data, text):
        self.assertEqual(wire.decode_element(data), (None, 0, [("E", text)]))

    def test_outer_type_does_not_count(self):
        self.assertEqual(wire.decode_element(element(10, 9, 10, 0, 2, 4, value=bytes(4)))[0], (10, UINT, 0))

    def test_lengths_that_exceed_are_refused(self):
        self.refused(element(10, 0, 17, 0, 2, 4, value=bytes(10)),
                     "VekmsgElementBinary_::deserialize() tag 10 length 17 is larger than allowed length 16")
        self.refused(element(10, 0, 5, 0, 2, 4),
                     "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 5 is too short")
        self.refused(element(10, 0, 10, 0, 2, 5, value=bytes(5)),
                     "VekMessageBinary_::deserializeTtlv() data length 5 is too large for remaining stream 4")

    def test_content_that_is_none_is_refused(self):
        self.refused(element(10, 0, 6, 9, 2, 0),
                     "VekmsgElementBinary_::deserialize() for element 10, expecting VEKMSGTAG_ELEMENT_CONTENT, got 9")
        self.refused(element(10, 0, 6, 0, 9, 0), "VekmsgElementBinary_::deserialize() tag 10 has invalid data type 9")
        self.refused(element(10, 0, 6, 0, 0, 0), "VekmsgElementBinary_::deserialize() tag 10 has invalid data type 0")
        self.refused(element(10, 0, 6, 0, 2, 0),
                     "VekmsgElementBinary_::deserialize() tag 10 of UINT type has an invalid length 0")
        self.refused(element(10, 0, 6, 0, 1, 0),
                     "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short")

    def test_values_above_their_limit_are_refused(self):
        self.refused(element(10, 0, 9407, 0, 3, 9401, value=bytes(9401)),
                     "VekmsgElementBinary_::deserialize() tag 10 of STRING type has a length 9401 exceeding the limit")
        self.refused(element(10, 0, 9407, 0, 4, 9401, value=bytes(9401)),
                     "VekmsgElementBinary_::deserialize() tag 10 of BINARY type has a length 9401 exceeding the limit")

    def test_last_byte_of_a_full_string_without_nul_is_lost(self):
        decoded, consumed, _ = wire.decode_element(element(10, 0, 9406, 0, 3, 9400, value=b"x" * 9400))
        self.assertEqual((decoded[2], consumed), (b"x" * 9399, 9412))

    def test_content_decides_where_the_next_element_begins(self):
        inner = element(1, 0, 26, 0, 2, 4, value=bytes(4)) + element(0, 0, 10, 0, 2, 4, value=bytes(4))
        self.assertEqual(wire.decode_element(element(10, 0, 6 + len(inner), 0, 1, len(inner), value=inner))[0],
                         (10, COMPLEX, [(0, UINT, 0), (1, UINT, 0)]))

    def test_bytes_behind_the_payload_are_told(self):
        self.assertEqual(wire.decode_payload(NUMBER + bytes(4)),
                         ((10, UINT, 7), [("W", "VekMessageBinary_::getPayload(): used 16 bytes out of 20")]))

    def test_equal_tags_keep_their_order(self):
        tree = (10, COMPLEX, [(2, UINT, 1), (1, UINT, 2), (2, UINT, 3), (1, UINT, 4)])
        ordered = (10, COMPLEX, [(1, UINT, 2), (1, UINT, 4), (2, UINT, 1), (2, UINT, 3)])
        self.assertEqual(wire.decode_element(wire.encode_element(tree))[0], ordered)

    def test_deepest_nesting_of_a_block_is_read(self):
        tree = (1, UINT, 7)
        for _ in range(778):
            tree = (1, COMPLEX, [tree])
        written = wire.encode_message(Message(b"abc", b"def", 3, b"", wire.encode_element(tree)))
        self.assertLessEqual(len(written), wire.MOST_READ)
        self.assertGreater(len(written) + 12, wire.MOST_READ)
        self.assertEqual(wire.decode_payload(wire.decode_message(written)[0].payload), (tree, []))


class Messages(unittest.TestCase):
    HEAD = (item(1, 3, b"sensor\0"), item(2, 3, b"panel\0"), item(3, 2, bytes([0, 0, 0, 3])))

    def refused(self, data, text):
        self.assertEqual(wire.decode_message(data), (None, [("E", f"VekMessageBinary_::{text}")]))

    def test_items_that_are_cut_are_refused(self):
        self.refused(bytes(5), "deserializeTtlvHeader() bytestreamLength 5 is too short")
        self.refused(element(1, 3, 10, value=bytes(4)),
                     "deserializeTtlv() data length 10 is too large for remaining stream 4")

    def test_items_of_another_tag_are_refused(self):
        for count, text in enumerate(("DESTINATION_NAME got 9", "SOURCE_NAME got 9 dest sensor",
                                      "TIME_TO_LIVE got 9 dest sensor src panel",
                                      "SCHEMA_URI got 9 dest sensor src panel")):
            self.refused(b"".join(self.HEAD[:count]) + item(9, 4, b""), f"deserialize() Expecting VEKMSGTAG_{text}")

    def test_items_of_another_type_are_refused(self):
        for count, text in enumerate(("DESTINATION_NAME) Expecting VEKMSG_STRING got 4",
                                      "SOURCE_NAME) Expecting VEKMSG_STRING got 4 dest sensor",
                                      "TIME_TO_LIVE) Expecting VEKMSG_UINT got 4 dest sensor src panel",
                                      "SCHEMA_URI) Expecting VEKMSG_STRING got 4 dest sensor src panel")):
            self.refused(b"".join(self.HEAD[:count]) + item(count + 1, 4, b""), f"deserialize(VEKMSGTAG_{text}")

    def test_time_to_live_of_another_length_is_refused(self):
        self.refused(b"".join(self.HEAD[:2]) + item(3, 2, bytes(2)),
                     "deserialize(VEKMSGTAG_TIME_TO_LIVE) invalid length 2 dest sensor src panel")

    def test_texts_end_at_their_nul_or_with_their_item(self):
        written = item(1, 3, b"sensor\0xyz") + item(2, 3, b"panel") + self.HEAD[2] + item(4, 3, b"")
        read, records = wire.decode_message(written)
        self.assertEqual((read, records), (Message(b"sensor", b"panel", 3, b"", b""), []))


class Blocks(unittest.TestCase):
    def check(self, data, messages, records, is_refused, peer=None):
        reader = wire.Reader("own", peer)
        reader.read(data)
        self.assertEqual((reader.messages(), reader.records(), reader.is_refused), (messages, records, is_refused))

    def test_first_block_has_to_be_a_name(self):
        self.check(element(2, 49), [], [("W", "own is expecting VEK_COMPONENT_NAME. Got 2, length 49")], True)
        no_name = [("W", "VekmsgTerminalImpl_::processPollEvents(own) got a null peerName for an unresolved "
                         "connection")]
        for payload in (b"", b"\0", b"x", b"\0xyz"):
            self.check(wire.encode_block(1, payload), [], no_name, True)

    def test_names_that_are_too_long_are_refused(self):
        self.check(element(1, 9401), [],
                   [("E", "VekmsgConnection_::processPollEvents() of own is getting VEK_COMPONENT_NAME "
                          "length 9401")], True)
        self.check(element(1, 9397, value=b"x" * 9397), [],
                   [("W", "VekSocket_::receive() requested data size 9397 is greater than free space 9396"),
                    ("E", "VekmsgConnection_::extractEncodingPayload() data length 9396 is shorter than the expected "
                          "payload 9397")], True)

    def test_short_names_cannot_deliver(self):
        self.check(wire.name_block(b"x"), [], [], False)
        self.check(wire.name_block(b"x") + wire.message_block(MESSAGE), [],
                   [("E", "VekmsgConnection_::extractEncodingHeader() data length 2 is too short for encoding header")],
                   True)

    def test_other_blocks_are_skipped(self):
        skipped = [("W", "Connection own to peer expecting BINARY_ENCODED_MESSAGE but got 7, length 10. "
                         "Skipping the block"),
                   ("W", "Connection own to peer dropped encoding block type 7")]
        self.check(wire.encode_block(7, bytes(10)) + wire.message_block(MESSAGE), [MESSAGE], skipped, False, "peer")

    def test_blocks_that_are_too_long_are_refused(self):
        self.check(element(7, 9397), [], [("E", "Connection own to peer is expecing BINARY_ENCODED_MESSAGE but got 7 "
                                                "of length 9397. Failed")], True, "peer")
        self.check(element(2, 9397), [],
                   [("E", "connection own to peer received BINARY_ENCODED_MESSAGE of 9397 (too long)")], True, "peer")

    def test_messages_that_are_none_are_skipped(self):
        self.check(wire.encode_block(2, b"") + wire.message_block(MESSAGE), [MESSAGE],
                   [("E", "VekMessageBinary_::deserializeTtlvHeader() bytestreamLength 0 is too short"),
                    ("W", "own deserializer failed to handle data from peer")], False, "peer")

    def test_stream_that_ends_inside_a_block_is_refused(self):
        block = wire.message_block(MESSAGE)
        for length in range(1, len(block)):
            self.check(block + block[:length], [MESSAGE], [], True, "peer")


class Unwritten(unittest.TestCase):
    def test_values_without_a_wire_form(self):
        for kind, value in ((COMPLEX, []), (UINT, 1 << 32), (STRING, b"x" * 9400), (BINARY, bytes(9401))):
            with self.assertRaises(wire.Unwritable):
                wire.encode_element((1, kind, value))
        self.assertEqual(len(wire.encode_element((1, STRING, b"x" * 9399))), 9412)
        self.assertEqual(len(wire.encode_element((1, BINARY, bytes(9400)))), 9412)

    def test_messages_of_65280_bytes_at_most(self):
        payload = bytes(wire.MOST_WRITTEN - 37)
        self.assertEqual(len(wire.encode_message(Message(b"abc", b"def", 3, b"", payload))), wire.MOST_WRITTEN)
        with self.assertRaises(wire.Unwritable):
            wire.encode_message(Message(b"abc", b"def", 3, b"", payload + b"x"))

    def check(self, element, size, records):
        message, told = Message(b"sensor", b"panel", 3, b"", b""), []
        written = wire.write_message(message, wire.settled(element, told), told)
        self.assertEqual((written and len(written), told), (size, records))

    def test_large_messages_are_told(self):
        def filled(size):
            headers = 42 + 12 + 12 * 8
            return 10, COMPLEX, [*[(1, BINARY, bytes(9000))] * 7, (1, BINARY, bytes(size - headers - 7 * 9000))]
        large = "Message (panel -> sensor) size {} could be too large for the peer"
        self.check((10, BINARY, bytes(9144 - 54)), 9144, [])
        self.check((10, BINARY, bytes(9145 - 54)), 9145, [("W", large.format(9145))])
        self.check(filled(65280), 65280, [("W", large.format(65280))])
        self.check(filled(65281), None, [("E", "Message (panel -> sensor) size 65281 exceeds the encoding limit")])

    def test_values_are_cut_or_refused(self):
        not_sent = [("E", "VekmsgElementBinary_::serialize() invalid type 0 for tag 10"),
                    ("E", "Serialization of Message (panel -> sensor) of 54 bytes failed. Free space 1024")]
        self.check((10, STRING, b"x" * 9400), 42 + 9412,
                   [("W", "VekmsgElementBinary_::setValue() string is longer than 9400. Truncated"),
                    ("W", "Message (panel -> sensor) size 9454 could be too large for the peer")])
        self.check((10, BINARY, bytes(9401)), None,
                   [("E", "VekmsgElementBinary_::setValue() binary length 9401 is too large. 9400 max"), *not_sent])
        self.check((10, COMPLEX, []), None, not_sent)

    def test_last_element_without_a_value_is_told(self):
        self.check((10, COMPLEX, [(2, 0, None), (1, 0, None)]), None,
                   [("E", "VekmsgElementBinary_::serialize() invalid type 0 for tag 2"),
                    ("E", "Serialization of Message (panel -> sensor) of 78 bytes failed. Free space 1024")])

    def test_header_items_that_grow_are_told(self):
        message, told = Message(b"sensor", b"panel", 3, b"", NUMBER), []
        self.assertEqual(wire.rewrite_message(message, 42, told), wire.encode_message(message))
        self.assertIsNone(wire.rewrite_message(message, 41, told))
        self.assertEqual(told, [("E", "Not enough header space 3 left to encode message (panel -> sensor) in a block")])

    def test_long_names_are_cut(self):
        self.assertEqual(wire.name_block(b"x" * 9500), wire.encode_block(1, b"x" * 9399 + b"\0"))


if __name__ == "__main__":
    unittest.main()
