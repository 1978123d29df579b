#!/usr/bin/env python3
"""What benchmarks/report/report makes of samples: usage: report_test.py SOURCES"""

import csv
import importlib.machinery
import importlib.util
import pathlib
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(sys.argv.pop(1))

loader = importlib.machinery.SourceFileLoader("report", str(SOURCES / "benchmarks/report/report"))
report = importlib.util.module_from_spec(importlib.util.spec_from_loader("report", loader))
loader.exec_module(report)


def cells(text):
    """The rows of all tables, by what stands in their first cells, without the others' formatting."""
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in text.splitlines() if line.startswith("| ")]


class ReportTest(unittest.TestCase):
    def setUp(self):
        kept = tempfile.TemporaryDirectory()
        self.addCleanup(kept.cleanup)
        self.folder = pathlib.Path(kept.name)
        self.goals = report.Goals()

    def write(self, name, columns, rows):
        with open(self.folder / name, "w", newline="", encoding="utf-8") as file:
            csv.writer(file).writerows([columns] + rows)

    def write_alerts(self, name, samples):
        self.write(name, ["contestant", "round", "microseconds"],
                   [[contestant, turn, time] for contestant, turn, times in samples for time in times])

    def goal(self, what):
        return next(row[2:] for row in self.goals.rows if row[0] == what)

    def test_an_alert_is_told_with_its_ratio_to_the_floor_of_the_same_table(self):
        self.write_alerts("alert.csv", [("floor", 0, [10.0] * 99 + [30.0]), ("velta-agent", 0, [20.0] * 98 + [90.0] * 2)])
        rows = cells(report.alert_section(self.folder, self.goals))
        self.assertIn(["velta-agent", "100", "0", "20", "20 to 20", "90", "2", "9"], [row[:8] for row in rows])
        self.assertEqual(self.goal("median to the floor's"), ["2", "yes"])
        self.assertEqual(self.goal("p99 to the floor's"), ["9", "NO"])

    def test_the_medians_of_the_rounds_are_told(self):
        self.write_alerts("alert_rested.csv", [("floor", 0, [10.0]), ("velta-agent", 0, [20.0, 20.0, 90.0]),
                                               ("velta-agent", 1, [50.0, 60.0, 70.0])])
        rows = cells(report.rested_section(self.folder, self.goals))
        self.assertEqual(["20 to 60"], [row[4] for row in rows if row[0] == "velta-agent"])

    def test_of_fewer_than_a_hundred_there_is_no_p99(self):
        self.write_alerts("alert_busy.csv", [("floor", 0, [10.0] * 99), ("velta-agent", 0, [20.0] * 100)])
        rows = cells(report.busy_section(self.folder, self.goals))
        self.assertEqual({"floor": "-", "velta-agent": "20"}, {row[0]: row[5] for row in rows if row[0]})

    def test_what_was_missed_has_no_time_and_is_counted_over_all_tables(self):
        self.write_alerts("alert.csv", [("floor", 0, [10.0, ""]), ("velta-agent", 0, [20.0, "", 20.0])])
        self.write_alerts("alert_busy.csv", [("velta-agent", 0, ["", ""])])
        self.write("alert_placed.csv", ["contestant", "processor", "round", "microseconds"],
                   [["velta-agent", "same", 0, ""], ["floor", "same", 0, ""]])
        self.write("alert_accounts.csv", ["contestant", "accounts", "microseconds"], [["velta-agent", 50, ""]])
        rows = cells(report.alert_section(self.folder, self.goals))
        self.assertIn(["velta-agent", "3", "1", "20"], [row[:4] for row in rows])
        for section in (report.busy_section, report.placed_section, report.accounts_section):
            section(self.folder, self.goals)
        self.assertEqual(self.goals.missed, 1 + 2 + 1 + 1)

    def test_by_processor_each_is_beside_the_floor_on_the_same(self):
        self.write("alert_placed.csv", ["contestant", "processor", "round", "microseconds"],
                   [["floor", "same", 0, 10], ["velta-agent", "same", 0, 40], ["floor", "other", 0, 50],
                    ["velta-agent", "other", 0, 100]])
        rows = cells(report.placed_section(self.folder, self.goals))
        self.assertEqual(["4", "2"], [row[7] for row in rows if row[1] == "velta-agent"])

    def test_stages_are_told_with_the_median_of_their_repetitions(self):
        columns = ["name", "real_time", "time_unit", "error_occurred"]
        self.write("reading.csv", columns, [["whole/plain/sorted/1000_mean", 9, "us", ""],
                                            ["whole/plain/sorted/1000_median", 8, "us", ""],
                                            ["whole/velta/sorted/1000_median", 2000, "ns", ""]])
        self.write("reading_million.csv", columns, [["whole/velta/sorted/1000000/iterations:1_median", 3, "s", ""]])
        rows = cells(report.reading_section(self.folder, self.goals))
        self.assertIn(["whole", "sorted", "1,000", "8", "2", "-", "0.25"], rows)
        self.assertIn(["whole", "sorted", "1,000,000", "-", "3,000,000", "-", "-"], rows)
        self.assertEqual(self.goal("one reading to the plain one's, 1,000 sorted"), ["0.25", "yes"])

    def test_the_record_has_a_row_of_all_that_its_samples_have(self):
        record = SOURCES / "benchmarks/results"
        rows = {tuple(row[:3]) for row in cells(report.reading_section(record, self.goals))}
        names = [line.split(",")[0].strip('"').partition("_")[0].split("/") for path in record.glob("reading*.csv")
                 for line in path.read_text(encoding="utf-8").splitlines() if line.count("/") >= 3]
        wanted = {(name[0], name[2], f"{int(name[3]):,}") for name in names}
        self.assertEqual(wanted - rows, set())
        self.assertIn("1,000,000", {accounts for _, _, accounts in wanted})


if __name__ == "__main__":
    unittest.main()
