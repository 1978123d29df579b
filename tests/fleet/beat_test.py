#!/usr/bin/python3
"""beat_test.py AGENT SOURCE_FOLDER

The collector ends in an orderly way and is started again, or is killed, while a host has nothing to say. Nobody tells
the host. The one event that comes then arrives all the same, and no other has to come after it."""

import pathlib
import signal
import sys

import fleet

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "setpriv", "useradd"])
fleet.enter_namespaces()

beat = 5  # seconds; shipped with sixty
shipped = fleet.environment_in(fleet.shipped / "host/velta-host.env")
assert int(shipped["VELTA_BEAT_SECONDS"]) <= 60, "docs/fleet.md says how soon an event arrives"

switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
collector.configure(fleet.in_the_clear)
host = fleet.Host("web", switch, agent, ["--output", fleet.Host.events])
host.configure(collector, {**fleet.in_the_clear, "VELTA_BEAT_SECONDS": str(beat)})
collector.start_rsyslog()
host.start_rsyslog()
host.start_agent()


def arrives(name):
    host.add_account(name)
    fleet.wait_for("%s at the collector" % name, lambda: name in collector.names(host))


arrives("toor")
for how in [signal.SIGTERM, signal.SIGKILL]:
    collector.end_rsyslog(how)
    collector.start_rsyslog()
    arrives("after-" + how.name)
assert host.end_agent() == 0
assert collector.lines(collector.others) == [], collector.lines(collector.others)
collector.hold_to_schemas([host], sources / "docs/schema")
print("\n".join(collector.lines()))
