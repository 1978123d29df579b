#!/usr/bin/python3
"""valid_events.py [--some-types] SCHEMA_FOLDER EVENTS_FILE

Holds every line of the file against the schema of its type. Fails as well when a type does not occur, as nobody has
looked at its schema then; with --some-types only when there is no event at all. Prints how many there are of each."""

import collections
import json
import os
import pathlib
import sys

import jsonschema


class Schemas:
    """Of the folder, by type of event."""

    def __init__(self, folder):
        self.validators = {}
        for path in sorted(pathlib.Path(folder).glob("*.json")):
            schema = json.loads(path.read_text())
            jsonschema.Draft202012Validator.check_schema(schema)
            self.validators[path.stem] = jsonschema.Draft202012Validator(schema)

    def types(self):
        return list(self.validators)

    def faults_of(self, line):
        """What is wrong with a line; empty when it is an event."""
        try:
            event = json.loads(line, object_pairs_hook=unique)
        except ValueError as fault:
            return ["not JSON: %s" % fault]
        kind = event.get("eventType") if isinstance(event, dict) else None
        if not isinstance(kind, str) or kind not in self.validators:
            return ["no type of event: %r" % kind]
        faults = ["%s: %s" % ("/".join(map(str, fault.absolute_path)), fault.message)
                  for fault in self.validators[kind].iter_errors(event)]
        if not faults and kind == "lost-alerts":  # which no schema can say
            content = event["eventContent"]
            if content["count"] != len(content["userNames"]) + content["unnamed"]:
                faults.append("eventContent: count is not that of userNames and unnamed")
        return faults


    def hold(self, events):
        """To their schemas, and keeps them with those of the other tests, which may be looked at together."""
        events = list(dict.fromkeys(events))
        assert events, "no events"
        faults = {event: self.faults_of(event) for event in events}
        assert not any(faults.values()), {event: fault for event, fault in faults.items() if fault}
        if "VELTA_EVENTS_FILE" in os.environ:
            with open(os.environ["VELTA_EVENTS_FILE"], "a") as record:
                record.write("".join(event + "\n" for event in events))


def unique(pairs):
    if len({name for name, _ in pairs}) < len(pairs):
        raise ValueError("a name occurs twice")
    return dict(pairs)


def main():
    folder, file = sys.argv[-2:]
    some_types = sys.argv[1:-2] == ["--some-types"]
    schemas = Schemas(folder)
    lines = pathlib.Path(file).read_text(encoding="utf-8", errors="strict").split("\n")
    seen = collections.Counter()
    wrong = 0
    for number, line in enumerate(lines[:-1], 1):
        faults = schemas.faults_of(line)
        for fault in faults:
            print("%s:%d: %s\n  %s" % (file, number, fault, line[:300]))
        wrong += bool(faults)
        if not faults:
            seen[json.loads(line)["eventType"]] += 1
    for kind in schemas.types():
        print("%7d %s" % (seen[kind], kind))
    # What --status prints goes another way, and has a test of its own.
    missing = [kind for kind in schemas.types() if seen[kind] == 0 and kind != "agent-status"]
    if some_types and len(missing) < len(schemas.types()) - 1:
        missing = []
    if missing:
        print("no event of type " + ", ".join(missing))
    if wrong:
        print("%d events are not as their schemas say" % wrong)
    sys.exit(1 if wrong or missing else 0)


if __name__ == "__main__":
    main()
