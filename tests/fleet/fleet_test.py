#!/usr/bin/python3
"""fleet_test.py AGENT SOURCE_FOLDER

Three hosts and a collector with the shipped configuration of rsyslog. Whatever breaks on the way, every alert arrives,
with the name of its host; what arrives twice is the same line twice. Those that rsyslogd may lose are named."""

import json
import pathlib
import signal
import sys

import fleet

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "setpriv", "useradd"])
fleet.enter_namespaces()

switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
collector.configure(fleet.in_the_clear)


def host(name, options, *more):
    made = fleet.Host(name, switch, agent, options)
    made.configure(collector, fleet.in_the_clear, *more)
    return made


events = fleet.Host.events
everything = ["--limit", "0"]
to_file = [*everything, "--output", events]
web = host("web", to_file)
db = host("db", to_file)
edge = host("edge", [*everything, "--syslog"], "31-velta-from-syslog.conf", "31-velta-append.sh")
hosts = [web, db, edge]
given_up = {web: [], db: [], edge: []}  # by rsyslogd, as docs/fleet.md says; they may arrive, and need not


def names(host):
    return [name for name in collector.names(host) if name not in given_up[host]]


def everything_arrives(*whose):
    for each in whose or hosts:
        fleet.wait_for(lambda: "alerts of %s: %s of %s" % (each.name, names(each), each.expected),
                       lambda: sorted(names(each)) == sorted(each.expected))


def told(host, name, path=events):
    fleet.wait_for("%s in %s of %s" % (name, path, host.name), lambda: '"%s"' % name in host.text(path))


def step(text):
    print(text, "-", len(collector.lines()), "lines", flush=True)


edge.run("mount", "-t", "tmpfs", "-o", "size=64k", "small", "/var/log/private/velta-agent")
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
queued = ["dark0", "dark1", "dark2", "dark-last"]
for each in hosts:
    for name in queued[:-1]:
        each.add_line(name)
    each.add_account(queued[-1])
    told(each, queued[-1])

step("one host's rsyslog is stopped with its queue, and its file is away when it starts: only the queue has the events")
fleet.wait_for("web to read all of its file", lambda: web.file(events).stat().st_size in [
    json.loads(state.read_text() or "{}").get("curr_offs") for state in web.file("/run/velta-forward").iterdir()])
web.end_rsyslog()
away = web.file(events).rename(web.file(events + ".away"))

step("another's is killed, and the third's is stopped; the agents go on")
db.end_rsyslog(signal.SIGKILL)
db.add_account("unheard")
told(db, "unheard")
edge.end_rsyslog()
edge.add_account("unheard")
fleet.wait_for("the agent of edge to notice", lambda: "send queue: syslog: " in edge.text("/var/log/agent"))

assert len(collector.lines()) == before
collector.start_rsyslog()
web.start_rsyslog()
fleet.wait_for(lambda: "what waited in the queue of web: %s" % collector.names(web),
               lambda: set(queued) <= set(collector.names(web)))
assert not web.file(events).exists()

step("the file is back: it has what the queue gave away")
web.end_rsyslog()
away.rename(web.file(events))
web.add_account("unheard")
told(web, "unheard")
for each in hosts:
    each.start_rsyslog()
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

step("a file is rotated")
db.file(events).rename(db.file(events + ".1"))
db.add_account("rotated")
everything_arrives()


def fill_the_disk_of_edge():
    """Until nothing is left of it but the end of a block, and events that are more than that."""
    edge.run("sh", "-c", "! cat /dev/zero >/var/log/velta-agent/filler")


def add_large(first, others):
    """Accounts whose events are each a quarter of a block; the first is the first in the queue."""
    edge.add_line(first, "/" + 940 * "x")
    told(edge, first, "/var/log/auth.log")
    for name in others:
        edge.add_line(name, "/" + 940 * "x")
        told(edge, name, "/var/log/auth.log")


def suspensions():
    return edge.log().count("action 'velta_file' suspended")


step("the disk of the host that goes by syslog is full")
fill_the_disk_of_edge()
add_large("full-first", ["full%d" % number for number in range(5)])
fleet.wait_for("rsyslogd of edge to notice", suspensions)
assert '"full4"' not in edge.text()
edge.file("/var/log/velta-agent/filler").unlink()
everything_arrives()

step("it is full again, and its rsyslogd is stopped and started, twice, with what it could not write")
fill_the_disk_of_edge()
suspended = suspensions()
add_large("held0", ["held%d" % number for number in range(1, 8)])
for _ in range(2):
    fleet.wait_for("rsyslogd of edge to try", lambda: suspensions() > suspended)
    edge.end_rsyslog()
    suspended = suspensions()
    written = "".join(line for _, line in edge.lines_at() if line.endswith("}"))
    tried = next(name for name in edge.expected if '"%s"' % name not in written)
    assert tried.startswith("held"), tried
    edge.expected.remove(tried)
    given_up[edge].append(tried)
    edge.start_rsyslog()
edge.file("/var/log/velta-agent/filler").unlink()
everything_arrives()

for each in hosts:
    assert each.end_agent() == 0, each.name

lines = collector.lines()
records = [json.loads(line) for line in lines]
assert {record["host"]: record["peer"] for record in records} == {each.name: each.address for each in hosts}
collector.hold_to_schemas(hosts, sources / "docs/schema")
distinct = {(each.name, event) for each in hosts for _, event in collector.records(each)}
assert len(set(lines)) == len(distinct), "an event that was sent twice is not the same line twice"
for each in hosts:  # byte for byte, and where the file there has them
    arrived = collector.records(each)
    own = each.lines_at(events + ".1") + each.lines_at()
    halves = {line for _, line in own if line and not line.endswith("}")}  # where the disk was full
    assert (each is edge) == bool(halves), halves
    assert set(arrived) == {(at, line) for at, line in own if line and line not in halves}, (arrived, own)
    others = {json.loads(line)["text"] for line in collector.lines(collector.others)
              if json.loads(line)["host"] == each.name}
    assert {text.removeprefix("@cee: ") for text in others} == halves, (others, halves)
step("%d alerts of 3 hosts, each arrived; %d repeats" % (len(distinct), len(lines) - len(distinct)))
