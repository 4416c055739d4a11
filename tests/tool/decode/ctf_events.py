"""Prints every event of a CTF trace as read by the babeltrace2 library, one
JSON object per line, in the order the library delivers them (its muxer
merges the data streams by time): the event class's name and log level, the
clock (its name, frequency, offset and origin) and the event's time on it,
the packet context's file and kind, and every payload field.

Usage: python3 ctf_events.py TRACE_DIRECTORY
"""
import json
import sys

import bt2


def value(field):
    if isinstance(field, bt2._StringFieldConst):
        return str(field)
    if isinstance(field, (bt2._UnsignedEnumerationFieldConst, bt2._SignedEnumerationFieldConst)):
        # The labels from the field class: the field's own label list
        # fails for a value that no label maps.
        number = int(field)
        labels = [label for label, mapping in field.cls.items() if any(r.lower <= number <= r.upper for r in mapping.ranges)]
        return {"value": number, "labels": labels}
    if isinstance(field, bt2._IntegerFieldConst):
        return int(field)
    if isinstance(field, bt2._ArrayFieldConst):
        return [value(element) for element in field]
    if isinstance(field, bt2._StructureFieldConst):
        return {name: value(member) for name, member in field.items()}
    raise TypeError("unexpected field type {}".format(type(field).__name__))


def main():
    for message in bt2.TraceCollectionMessageIterator(sys.argv[1]):
        if type(message) is not bt2._EventMessageConst:
            continue
        event = message.event
        snapshot = message.default_clock_snapshot
        clock = snapshot.clock_class
        level = event.cls.log_level
        record = {
            "name": event.name,
            "log_level": None if level is None else int(level),
            "clock": {
                "name": clock.name,
                "frequency": clock.frequency,
                "offset_seconds": clock.offset.seconds,
                "offset_cycles": clock.offset.cycles,
                "unix_epoch": clock.origin_is_unix_epoch,
            },
            "timestamp": snapshot.ns_from_origin,
            "stream": event.stream.id,
            "packet": value(event.packet.context_field),
            "fields": value(event.payload_field),
        }
        print(json.dumps(record, ensure_ascii=False))


main()
