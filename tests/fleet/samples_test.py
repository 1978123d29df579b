#!/usr/bin/python3
"""samples_test.py AGENT SOURCE_FOLDER

The Sigma rules fire on the events that they are for, and on no other; the samples for other engines can be read.

Debian 12 has no tool for Sigma: the evaluator below knows the little of it that our rules use, refuses everything
else, and is no proof that a product reads them the same way."""

import pathlib
import re
import sys
import tomllib
import unittest

import yaml

sources = pathlib.Path(sys.argv.pop(2))
sys.argv.pop(1)
rules = {path.stem: yaml.safe_load(path.read_text()) for path in (sources / "packaging/sigma").glob("*.yml")}
samples = sources / "packaging/fleet/samples"


def value_at(event, path):
    for name in path.split("."):
        if not isinstance(event, dict) or name not in event:
            return None
        event = event[name]
    return event


def matches(selection, event):
    """All fields, each with one of its values. Words are compared as Sigma does it, in any case of letters."""
    def same(wanted, found):
        if isinstance(wanted, str):
            assert not set(wanted) & set("*?\\"), "jokers are not known here"
            return isinstance(found, str) and wanted.lower() == found.lower()
        return type(wanted) is type(found) and wanted == found

    for field, wanted in selection.items():
        assert "|" not in field, "modifiers are not known here"
        found = value_at(event, field)
        if not any(same(each, found) for each in (wanted if isinstance(wanted, list) else [wanted])):
            return False
    return True


def fires(rule, event):
    selections = dict(rule["detection"])
    words = selections.pop("condition").split()
    assert set(words) <= set(selections) | {"and", "or", "not"}, words
    truth = {name: matches(selection, event) for name, selection in selections.items()}
    return eval(" ".join(word if word in ("and", "or", "not") else str(truth[word]) for word in words))


def finding(kind, name, uid=0):
    return {"eventType": kind, "eventTime": "2026-11-21 04:37:17",
            "eventContent": {"userName": name, "uid": uid, "gid": 0, "shell": "", "home": "/"}}


blind = {"eventType": "account-file-unreadable", "eventTime": "2026-11-21 04:37:17",
         "eventContent": {"path": "/etc/passwd", "reason": "/etc/passwd is not a regular file"}}
lost = {"eventType": "lost-alerts", "eventTime": "2026-11-21 04:37:17",
        "eventContent": {"count": 1, "userNames": ["toor"], "unnamed": 0}}


class SigmaTest(unittest.TestCase):
    became_root = rules["velta_account_became_root"]
    impaired = rules["velta_agent_blind"]

    def test_a_new_root_account_fires(self):
        self.assertTrue(fires(self.became_root, finding("unauthorized-root-user", "toor")))
        self.assertTrue(fires(self.became_root, finding("uncovered-root-account", "")))

    def test_a_known_one_and_other_events_do_not(self):
        known = self.became_root["detection"]["known"]["eventContent.userName"][0]
        self.assertFalse(fires(self.became_root, finding("unauthorized-root-user", known)))
        self.assertFalse(fires(self.became_root, finding("unauthorized-root-user", "toor", uid=1000)))
        self.assertFalse(fires(self.became_root, finding("another", "toor")))
        self.assertFalse(fires(self.became_root, blind))
        self.assertFalse(fires(self.became_root, {}))

    def test_an_impaired_watch_fires_the_other_rule(self):
        self.assertTrue(fires(self.impaired, blind))
        self.assertTrue(fires(self.impaired, lost))
        self.assertFalse(fires(self.impaired, finding("unauthorized-root-user", "toor")))

    def test_every_event_that_has_a_schema_fires_one_rule(self):
        kinds = {path.stem for path in (sources / "docs/schema").glob("*.json")} - {"agent-status"}
        fired = {kind: [name for name, rule in rules.items() if fires(rule, finding(kind, "toor"))] for kind in kinds}
        self.assertEqual({kind: len(names) for kind, names in fired.items()}, dict.fromkeys(kinds, 1), fired)

    def test_the_rules_have_what_sigma_asks_of_them(self):
        for name, rule in rules.items():
            for member in ("title", "id", "status", "description", "logsource", "detection", "level"):
                self.assertIn(member, rule, name)
            self.assertRegex(rule["id"], r"^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$")
            self.assertIn(rule["level"], ("informational", "low", "medium", "high", "critical"))
        self.assertEqual(len({rule["id"] for rule in rules.values()}), len(rules))


class SampleTest(unittest.TestCase):
    def test_they_can_be_read_and_read_the_file_of_the_agent(self):
        host = (sources / "packaging/fleet/rsyslog/host/velta-host.env").read_text()
        file = re.search(r"^VELTA_EVENTS_FILE=(.*)$", host, re.MULTILINE)[1]
        fluent_bit = yaml.safe_load((samples / "fluent-bit.yaml").read_text())
        self.assertEqual([each["path"] for each in fluent_bit["pipeline"]["inputs"]], [file])
        vector = tomllib.loads((samples / "vector.toml").read_text())
        self.assertEqual(vector["sources"]["velta_file"]["include"], [file])
        otel = yaml.safe_load((samples / "otel-collector.yaml").read_text())
        self.assertEqual(otel["receivers"]["filelog"]["include"], [file])
        for part, used in otel["service"]["pipelines"]["logs"].items():
            self.assertEqual(set(used), set(otel[part]), part)

    def test_each_says_that_it_was_not_tested(self):
        for path in samples.iterdir():
            self.assertTrue(path.read_text().startswith("# NOT TESTED HERE: "), path.name)


unittest.main(verbosity=2)
