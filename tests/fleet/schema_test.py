#!/usr/bin/python3
"""schema_test.py AGENT SOURCE_FOLDER

The schemas take an event of each type, and refuse each of the ways in which one can be wrong."""

import copy
import json
import pathlib
import re
import subprocess
import sys
import unittest

import valid_events

agent, sources = sys.argv.pop(1), pathlib.Path(sys.argv.pop(1))
schemas = valid_events.Schemas(sources / "docs/schema")


def event(kind, **content):
    return {"eventType": kind, "eventTime": "2026-11-21 04:37:17", "eventContent": content}


good = {
    "unauthorized-root-user": event("unauthorized-root-user", userName="toor", uid=0, gid=-1, shell="", home="/",
                                    type="illegal"),
    "uncovered-root-account": event("uncovered-root-account", userName="", uid=0, gid=0, shell="", home="/", line=25,
                                    reason="empty name"),
    "account-file-unreadable": event("account-file-unreadable", path="/etc/passwd",
                                     reason="/etc/passwd is not a regular file"),
    "lost-alerts": event("lost-alerts", count=3, userNames=["x", "y"], unnamed=1),
    "agent-status": event(
        "agent-status", version="0.1.0", process=7, since="2026-11-21 04:37:17",
        policy={"file": "", "since": "2026-11-21 04:37:17", "detects": True},
        reading={"file": "/etc/passwd", "count": 1, "last": "", "lines": 20, "obstacle": ""},
        watch={"watches": 3, "polls": False},
        outputs=[{"output": "standard output", "state": "ok", "sent": 1, "waiting": 0, "deferred": 0, "lost": 0,
                  "lastError": "", "lastErrorTime": ""}],
        lastError={"time": "", "text": ""}),
}

# In a copy of /etc that goes away with it.
private_etc = r"""
set -e
mount -t tmpfs room /mnt
mkdir /mnt/etc
mount -t tmpfs -o mode=755 etc /mnt/etc
cp -a /etc/. /mnt/etc
mount --move /mnt/etc /etc
agent=$1
awk -F: '$3 != 0 || $1 == "root"' /etc/passwd >/mnt/passwd
printf 'toor:x:0:0::/:/bin/sh\nsix:x:0:0::/\n' >>/mnt/passwd
cat /mnt/passwd >/etc/passwd
"""


def say_in_private(script):
    """The lines that the agent prints."""
    unshare = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--propagation", "private",
               "sh", "-c", private_etc + script, "sh", agent]
    done = subprocess.run(unshare, stdout=subprocess.PIPE, text=True, timeout=60, check=True)
    return done.stdout.splitlines()


class SchemaTest(unittest.TestCase):
    def refused(self, changed, why):
        self.assertNotEqual(schemas.faults_of(json.dumps(changed)), [], why)

    def test_each_type_of_event_has_a_schema_and_a_sample(self):
        self.assertEqual(schemas.types(), sorted(good))
        for kind, sample in good.items():
            self.assertEqual(schemas.faults_of(json.dumps(sample)), [], kind)

    def test_what_the_agent_says_of_two_accounts_is_valid(self):
        lines = say_in_private('"$agent" --once --log-level off || [ $? -eq 1 ]')
        self.assertEqual([schemas.faults_of(line) for line in lines], [[], []])
        self.assertEqual(sorted(json.loads(line)["eventType"] for line in lines),
                         ["unauthorized-root-user", "uncovered-root-account"])

    def test_what_the_agent_says_of_itself_is_valid(self):
        lines = say_in_private(r"""
mkfifo /mnt/log
"$agent" --status-file /mnt/status --output /mnt/events 2>/mnt/log &
grep -q 'watching /etc/passwd' /mnt/log
until grep -qs uncovered /mnt/events && grep -qs '"sent":2' /mnt/status; do kill -0 $!; done
"$agent" --status --json --status-file /mnt/status
kill $!
""")
        self.assertEqual([schemas.faults_of(line) for line in lines], [[]])
        self.assertEqual(json.loads(lines[0])["eventContent"]["outputs"][0]["output"], "/mnt/events")

    def test_the_agent_has_no_other_type(self):
        written = set()
        for source in [*sources.glob("agent/*.cpp"), *sources.glob("detect/*.cpp")]:
            written |= set(re.findall(r'eventType"\] = "([^"]+)"|eventType":"([^"]+)"', source.read_text()))
        self.assertEqual({one or other for one, other in written}, set(good))

    def test_the_reasons_are_those_of_the_agent(self):
        source = (sources / "agent/uncovered_accounts.cpp").read_text()
        written = set(re.findall(r'"([A-Za-z]+ [A-Za-z ]+)"', source[source.index("line too long") - 200:]))
        schema = schemas.validators["uncovered-root-account"].schema
        listed = set(schema["properties"]["eventContent"]["properties"]["reason"]["enum"])
        self.assertEqual(listed - {"comment"}, written)
        self.assertIn('"comment"', source)

    def test_a_missing_member_is_refused(self):
        for kind, sample in good.items():
            for name in sample:
                changed = {key: value for key, value in sample.items() if key != name}
                self.refused(changed, (kind, name))
            for name in sample["eventContent"]:
                changed = copy.deepcopy(sample)
                del changed["eventContent"][name]
                self.refused(changed, (kind, name))

    def test_a_further_member_is_refused(self):
        for kind, sample in good.items():
            self.refused({**sample, "more": 1}, kind)
            self.refused({**sample, "eventContent": {**sample["eventContent"], "more": 1}}, kind)

    def test_a_member_of_another_kind_is_refused(self):
        for kind, sample in good.items():
            for name, value in sample["eventContent"].items():
                other = [] if not isinstance(value, list) else "x"  # even where an object is
                self.refused({**sample, "eventContent": {**sample["eventContent"], name: other}}, (kind, name))

    def test_values_that_cannot_be_are_refused(self):
        for kind, name, value in [
                ("unauthorized-root-user", "uid", 1), ("unauthorized-root-user", "userName", "root"),
                ("unauthorized-root-user", "userName", ""), ("unauthorized-root-user", "type", "legal"),
                ("unauthorized-root-user", "gid", 2147483648), ("unauthorized-root-user", "gid", -2147483649),
                ("uncovered-root-account", "uid", 1), ("uncovered-root-account", "userName", "root"),
                ("uncovered-root-account", "line", 0), ("uncovered-root-account", "reason", "because"),
                ("account-file-unreadable", "path", "/etc/shadow"), ("account-file-unreadable", "reason", ""),
                ("lost-alerts", "count", 0), ("lost-alerts", "count", 4), ("lost-alerts", "unnamed", -1),
                ("lost-alerts", "userNames", ["x", 1])]:
            sample = good[kind]
            self.refused({**sample, "eventContent": {**sample["eventContent"], name: value}}, (kind, name, value))

    def test_another_time_or_type_is_refused(self):
        for kind, sample in good.items():
            for time in ["", "2026-11-21T04:37:17Z", "2026-11-21 04:37", 5]:
                self.refused({**sample, "eventTime": time}, time)
            for other in good:
                if other != kind:
                    self.refused({**sample, "eventType": other}, (kind, other))
            self.refused({**sample, "eventType": "another"}, kind)

    def test_what_is_no_object_is_refused(self):
        text = json.dumps(good["lost-alerts"])
        for line in ["", "[]", '"lost-alerts"', "1", text[:-1], text + text, text.replace("{", '{"eventType":"x",', 1)]:
            self.assertNotEqual(schemas.faults_of(line), [], line)


unittest.main(verbosity=2)
