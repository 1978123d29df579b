#!/usr/bin/python3
"""pages_test.py AGENT SOURCE_FOLDER

The manual page and the completion say what --help of the agent says."""

import pathlib
import re
import subprocess
import sys
import unittest

agent, sources = sys.argv.pop(1), pathlib.Path(sys.argv.pop(1))
page = sources / "packaging/man/velta-agent.8"
policy_page = sources / "packaging/man/velta-agent-policy.5"
completion = sources / "packaging/completion/velta-agent"


def output_of(*words):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                          text=True, check=False, timeout=20).stdout


def plain(text):
    """One line, in which a page and a help text can be compared."""
    text = re.sub(r"[\u2018\u2019]", "'", text).replace("\u2010", "-").replace("\u2212", "-")
    return " ".join(text.split()).lower()


help_text = output_of(agent, "--help")
rendered = subprocess.run(["col", "-b"], input=output_of("mandoc", "-T", "utf8", str(page)), stdout=subprocess.PIPE,
                          text=True, check=True).stdout.expandtabs()

# Names, the word for the value or "", and what it says: ["--policy"], "FILE", "the policy, ...".
options = [(match[1].split(","), match[2] or "", match[3])
           for match in re.finditer(r"^  (-[-a-z,]+)(?: (\S+))?  +(\S.*)$", help_text, re.MULTILINE)]
values = {name: value for names, value, _ in options for name in names}


def complete(*words):
    """What bash would offer for the last of the words."""
    script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { echo "compopt $*"; }; '
              '_velta_agent; printf "%s\\n" "${COMPREPLY[@]}"')
    return output_of("bash", "-c", script, "bash", str(completion), *words).split()


class HelpTest(unittest.TestCase):
    def test_help_is_understood_here(self):
        self.assertGreater(len(options), 10)
        self.assertEqual(set(re.findall(r"(?<![\w-])--[a-z-]+", help_text)) - set(values), set())


class ManualTest(unittest.TestCase):
    def section(self, name):
        return re.search(r"^%s$(.*?)^(?=\S)" % name, rendered, re.MULTILINE | re.DOTALL)[1]

    def paragraphs(self):
        """Of the options: the heading, and what is below it."""
        tags = re.split(r"^     (?=-)", self.section("DESCRIPTION"), flags=re.MULTILINE)[1:]
        for tag in tags:
            first = re.match(r"((?:-[-\w]+)(?:, -[-\w]+)*(?: [A-Z|-]+)?)(?:$| {2,}| (?=[A-Z][a-z]))", tag, re.MULTILINE)
            yield first[1], tag[first.end():]

    def test_the_page_has_exactly_the_options_of_help_and_their_words(self):
        described = {heading: plain(text) for heading, text in self.paragraphs()}
        expected = {", ".join(names) + (" " + value if value else ""): plain(text) for names, value, text in options}
        self.assertEqual(sorted(described), sorted(expected))
        for heading, words in expected.items():
            self.assertIn(words, described[heading], heading)

    def test_the_synopsis_has_every_option_with_its_value(self):
        synopsis = plain(self.section("SYNOPSIS"))
        for names, value, _ in options:
            for name in names:
                wanted = plain(name + (" " + value if value else ""))
                self.assertRegex(synopsis, r"(^|[\[ ])%s($|[\] ])" % re.escape(wanted))

    def test_the_exit_codes_are_those_of_help_in_the_same_words(self):
        listed = plain(re.search(r"Exit codes: (.*?)\. Signals", " ".join(help_text.split()))[1])
        codes = re.findall(r"(\d+) (.*?)(?=, \d+ |$)", listed)
        self.assertGreater(len(codes), 7)
        said = re.findall(r"^     (\d+) +(.*?)(?=^     \d|\Z)", self.section("EXIT STATUS"), re.MULTILINE | re.DOTALL)
        self.assertEqual([(code, plain(words)) for code, words in said], codes)

    def test_the_events_are_those_that_have_a_schema(self):
        schemas = {path.stem for path in (sources / "docs/schema").glob("*.json")} - {"agent-status"}
        self.assertEqual(set(re.findall(r"^     ([a-z-]+-[a-z-]+)$", self.section("EVENTS"), re.MULTILINE)), schemas)

    def test_the_policy_page_has_the_key(self):
        self.assertIn("unauthorized-root-user", policy_page.read_text())
        keys = (sources / "module/detect_user_policy.cpp").read_text()
        self.assertIn('"unauthorized-root-user"', keys)

    def test_the_pages_are_well_formed(self):
        for each in (page, policy_page):
            self.assertEqual(output_of("mandoc", "-T", "lint", "-W", "warning", str(each)), "")


class CompletionTest(unittest.TestCase):
    def test_it_is_a_script(self):
        self.assertEqual(output_of("bash", "-n", str(completion)), "")

    def test_every_option_is_offered_and_nothing_else(self):
        self.assertEqual(sorted(complete("velta-agent", "")), sorted(values))
        self.assertEqual(complete("velta-agent", "--check-p"), ["--check-policy"])

    def test_after_an_option_with_a_value_no_option_is_offered(self):
        for name, value in values.items():
            offered = complete("velta-agent", name, "--")
            self.assertEqual("--help" in offered, value == "", name)

    def test_names_of_files_are_offered_where_one_is_wanted(self):
        for name, value in values.items():
            self.assertEqual("compopt" in complete("velta-agent", name, str(sources) + "/READ"), "FILE" in value, name)

    def test_the_words_that_are_offered_are_those_that_the_agent_takes(self):
        checked = 0
        for name, value in values.items():
            if value in ("", "FILE", "FILE|-"):
                continue
            taken = re.search(r"not in \{(.*?)\}", output_of(agent, name, "no-such-word"))
            if taken:
                self.assertEqual(sorted(complete("velta-agent", name, "")), sorted(taken[1].split(",")), name)
                checked += 1
        self.assertGreater(checked, 0)


unittest.main(verbosity=2)
