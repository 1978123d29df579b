#!/usr/bin/python3
"""tls_test.py AGENT SOURCE_FOLDER

With the values of the shipped .env files, only the collector's address aside: TLS is on. Alerts of a host with a
certificate of our authority arrive; those of a host with another one's, and of one with a name that is not ours, do
not."""

import pathlib
import sys

import fleet

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "setpriv", "openssl"])
fleet.enter_namespaces()

ours, theirs = fleet.Authority("ours"), fleet.Authority("theirs")
switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
collector.configure({})
ours.certify(collector, "collector.example.org", ours)


def host(name, certificate, authority):
    made = fleet.Host(name, switch, agent, ["--output", "/var/log/velta-agent/alerts.jsonl"])
    made.configure(collector, {})
    authority.certify(made, certificate, ours)
    return made


web = host("web", "web.example.org", ours)
other_authority = host("other", "other.example.org", theirs)
other_name = host("stranger", "stranger.example.net", ours)
refused = [other_authority, other_name]
for node in [collector, web, *refused]:
    node.start_rsyslog()
for each in [*refused, web]:
    each.start_agent()
    each.add_line("toor")
    fleet.wait_for("event of " + each.name, lambda: "toor" in each.file("/var/log/velta-agent/alerts.jsonl").read_text())
for each in refused:
    fleet.wait_for(each.name + " to be refused", lambda: "omrelp" in each.log() and "suspend" in each.log())
fleet.wait_for("alert of web: " + collector.log()[-1500:], lambda: collector.names(web) == ["toor"])
assert [collector.names(each) for each in refused] == [[], []]

# It was the name: asked for another one, the collector takes the event that has waited.
collector.end_rsyslog()
collector.environment["VELTA_TLS_PEERS"] = "*.example.net"
collector.start_rsyslog()
fleet.wait_for("alert of the stranger", lambda: collector.names(other_name) == ["toor"])
assert collector.names(other_authority) == []
collector.hold_to_schemas([web, other_name], sources / "docs/schema")
print("one host of ours arrives, two others are refused; a name that is allowed later arrives later")
