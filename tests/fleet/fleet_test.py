#!/usr/bin/python3
"""fleet_test.py AGENT SOURCE_FOLDER

Three hosts and a collector with the shipped configuration of rsyslog. Whatever breaks on the way, every alert arrives,
with the name of its host; what arrives twice is the same line twice."""

import json
import pathlib
import signal
import sys

import fleet

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
shipped = sources / "packaging/fleet/rsyslog"
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "setpriv", "useradd"])
fleet.enter_namespaces()

in_the_clear = {"VELTA_TLS": "off", "VELTA_TLS_CA": "/dev/null", "VELTA_TLS_CERTIFICATE": "/dev/null",
                "VELTA_TLS_KEY": "/dev/null"}

switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
collector.configure_rsyslog([shipped / "collector/30-velta-collector.conf"],
                            {**fleet.environment_in(shipped / "collector/velta-collector.env"), **in_the_clear})


def host(name, options, *more):
    made = fleet.Host(name, switch, agent, options)
    made.configure_rsyslog([shipped / "host/30-velta-forward.conf", *[shipped / "host" / each for each in more]],
                           {**fleet.environment_in(shipped / "host/velta-host.env"), **in_the_clear,
                            "VELTA_COLLECTOR": collector.address})
    return made


to_file = ["--output", "/var/log/velta-agent/alerts.jsonl"]
web = host("web", to_file)
db = host("db", to_file)
edge = host("edge", ["--syslog"], "31-velta-from-syslog.conf")
hosts = [web, db, edge]


def everything_arrives(*whose):
    for each in whose or hosts:
        fleet.wait_for(lambda: "alerts of %s: %s of %s" % (each.name, collector.names(each), each.expected),
                       lambda: sorted(collector.names(each)) == sorted(each.expected))


def told(host, name):
    path = "/var/log/velta-agent/alerts.jsonl"
    fleet.wait_for("%s on %s" % (name, host.name),
                   lambda: host.file(path).exists() and '"%s"' % name in host.file(path).read_text())


def step(text):
    print(text, "-", len(collector.lines()), "lines", flush=True)


for each in [collector, *hosts]:
    each.start_rsyslog()
for each in hosts:
    each.start_agent()

step("the same name on each host")
for each in hosts:
    each.add_account("toor")
everything_arrives()

step("the collector is killed, and accounts are added meanwhile")
collector.end_rsyslog(signal.SIGKILL)
before = len(collector.lines())
refusals = web.log().count("error opening connection")
for each in hosts:
    each.add_line("dark-first")
    each.add_line("dark-second")
# While these two are being tried, what follows stays in the queue.
fleet.wait_for("web to notice", lambda: web.log().count("error opening connection") > refusals)
for each in hosts:
    for number in range(3):
        each.add_line("dark%d" % number)
    each.add_account("dark-last")
    told(each, "dark-last")

step("one host's rsyslog is stopped with its queue; the agent goes on")
fleet.wait_for("web to read all of its file", lambda: web.file("/var/log/velta-agent/alerts.jsonl").stat().st_size in [
    json.loads(state.read_text() or "{}").get("curr_offs") for state in web.file("/run/velta-forward").iterdir()])
web.end_rsyslog()
assert web.file("/var/spool/rsyslog/velta_forward.qi").exists(), "no queue is left on the disk of web"
web.add_account("unheard")
told(web, "unheard")

step("another's is killed")
db.end_rsyslog(signal.SIGKILL)

assert len(collector.lines()) == before
web.start_rsyslog()
db.start_rsyslog()
collector.start_rsyslog()
everything_arrives()

step("a host is cut off")
fleet.run("ip", "link", "set", "to-edge", "down")
for each in hosts:
    each.add_account("cut-off")
    told(each, "cut-off")
everything_arrives(web, db)
assert sorted(collector.names(edge)) == sorted(edge.expected[:-1])
edge.add_line("still-cut-off")
told(edge, "still-cut-off")

step("and comes back")
fleet.run("ip", "link", "set", "to-edge", "up")
everything_arrives()
for each in hosts:
    assert each.end_agent() == 0, each.name

lines = collector.lines()
records = [json.loads(line) for line in lines]
assert collector.lines(collector.others) == [], collector.lines(collector.others)
assert {record["host"]: record["peer"] for record in records} == {each.name: each.address for each in hosts}
distinct = {(record["host"], json.dumps(record["event"])) for record in records}
assert len(distinct) == sum(len(each.expected) for each in hosts)
assert len(set(lines)) == len(distinct), "an event that was sent twice is not the same line twice"
for each in hosts:  # byte for byte, and in the order of the file there
    own = each.file("/var/log/velta-agent/alerts.jsonl").read_text().splitlines()
    arrived = {int(json.loads(line)["at"]): line.split(',"event":', 1)[1][:-1] for line in lines
               if line.startswith('{"host":"%s"' % each.name)}
    assert [arrived[at] for at in sorted(arrived)] == own, (arrived, own)
step("%d alerts of 3 hosts, each arrived; %d repeats" % (len(distinct), len(lines) - len(distinct)))
