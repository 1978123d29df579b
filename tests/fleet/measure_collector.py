#!/usr/bin/python3
"""measure_collector.py [--plain] [--within SECONDS] [--descriptors N] HOSTS...

How many hosts one collector carries. For each number: rsyslogd with the shipped configuration in a network of its own,
and as many hosts. All of them come within a minute, or --within another time that is then between their beats, as after
the collector was away, and have nothing to say but these; then each sends an event, all at the same time, and waits
until it is acknowledged. Ends with 1 when an event does not arrive, or when the collector has asked a name server.

What speaks for the hosts is RELP in a few lines, with TLS and certificates on both sides unless --plain: all of them in
one process, on this machine, so the times are those of both sides. --descriptors sets the limit of the collector. As
root; needs what the tests of this folder need.

Columns: the hosts; how long it took until all were connected, how often one had to begin again, and the processor time
of the collector for each; how long until all events were acknowledged, and how many stand in its file; of its memory
and its descriptors what each host takes; its memory at the end; the processor time that it takes for the beats."""

import argparse
import asyncio
import os
import pathlib
import random
import resource
import socket
import ssl
import sys
import time

import fleet

patience = 90  # seconds, for all hosts together
rest = 10
event = ('{"eventType":"unauthorized-root-user","eventTime":"2026-11-21 04:37:17","eventContent":'
         '{"userName":"toor","uid":0,"gid":0,"shell":"/bin/sh","home":"/","type":"illegal"}}')

arguments = argparse.ArgumentParser()
arguments.add_argument("--plain", action="store_true")
arguments.add_argument("--within", type=float, default=60)  # the beat of the hosts
arguments.add_argument("--descriptors", type=int, default=16384)  # what Debian's rsyslog.service has
arguments.add_argument("hosts", type=int, nargs="+")
given = arguments.parse_args()
shortest_beat = int(fleet.environment_in(fleet.shipped / "host/velta-host.env")["VELTA_BEAT_SECONDS"])
beat = max(given.within, shortest_beat)
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "openssl"])
fleet.enter_namespaces()


class Host:
    """The sending side: one transaction at a time."""

    def __init__(self, number, address, port, tls):
        self.name = "host%05d" % number
        self.target = (address, port)
        self.tls = tls
        self.repeats = 0
        self.transaction = 1

    async def ask(self, transaction, command, data):
        self.writer.write(b"%d %s %d %s\n" % (transaction, command, len(data), data))
        number, kind, length = [int(word) if word.strip().isdigit() else word for word in
                                [await self.reader.readuntil(b" ") for _ in range(3)]]
        answer = await self.reader.readexactly(length + 1)
        assert (number, kind, answer[:4]) == (transaction, b"rsp ", b"200 "), (number, kind, answer)

    async def come(self):
        """At some moment of that time, and again until it is heard."""
        await asyncio.sleep(random.uniform(0, given.within))
        while True:
            try:
                await asyncio.wait_for(self.connect(), 30)  # as the timeout of the hosts' action
                return
            except (OSError, asyncio.TimeoutError, asyncio.IncompleteReadError):
                self.repeats += 1
                await asyncio.sleep(2)  # action.resumeInterval

    async def connect(self):
        self.reader, self.writer = await asyncio.open_connection(
            *self.target, ssl=self.tls, server_hostname="collector.example.org" if self.tls else None)
        await self.ask(1, b"open", b"relp_version=0\nrelp_software=measurement\ncommands=syslog")
        self.here = True

    async def beat(self):
        """In some of the seconds of rest, if it is its turn."""
        moment = random.uniform(0, beat)
        if moment < rest:
            await asyncio.sleep(moment)
            await self.send("beat", "beat")

    async def send(self, at, content):
        self.transaction += 1
        text = "<81>1 2026-11-21T04:37:17.000000+00:00 %s velta-agent - %s - @cee: %s" % (self.name, at, content)
        await self.ask(self.transaction, b"syslog", text.encode())


class Process:
    """What the kernel says of the collector."""

    def __init__(self, pid):
        self.folder = pathlib.Path("/proc/%d" % pid)

    def megabytes(self):
        lines = (self.folder / "status").read_text().splitlines()
        return int(next(line for line in lines if line.startswith("VmRSS:")).split()[1]) / 1024

    def processor_seconds(self):
        fields = (self.folder / "stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def descriptors(self):
        return len(list((self.folder / "fd").iterdir()))


async def all_of(doings):
    """How long it takes, and how many did not get there in time."""
    begin = time.monotonic()
    if not doings:
        return 0, 0
    tasks = [asyncio.ensure_future(each) for each in doings]
    done, waiting = await asyncio.wait(tasks, timeout=given.within + patience)
    for each in waiting:
        each.cancel()
    failed = [each.exception() for each in done if each.exception()]
    for each in failed[:3]:
        print("failed: %r" % each, file=sys.stderr)
    return time.monotonic() - begin, len(waiting) + len(failed)


async def measure(count, collector, tls):
    process = Process(collector.rsyslogd.pid)
    empty, before, unused = process.megabytes(), process.descriptors(), process.processor_seconds()
    hosts = [Host(number, collector.address, 2514, tls) for number in range(count)]
    coming, away = await all_of([host.come() for host in hosts])
    used, greeted = process.descriptors() - before, process.processor_seconds()
    here = [host for host in hosts if hasattr(host, "here")]
    began = time.monotonic()
    beating = asyncio.gather(*[host.beat() for host in here])
    await asyncio.sleep(rest)
    await beating
    resting = (process.processor_seconds() - greeted) / (time.monotonic() - began)
    idle = process.megabytes()
    sending, unheard = await all_of([host.send("0", event) for host in here])
    arrived = len({line.split('"')[3] for line in collector.lines()})
    print("%6d %8.1f s %8d %8.2f ms %8.1f s %8d %8.1f KiB %8.2f %8.1f MiB %8.1f %%" % (
        count, coming, sum(host.repeats for host in hosts), (greeted - unused) * 1000 / count, sending, arrived,
        (idle - empty) * 1024 / count, used / count, process.megabytes(), resting * 100), flush=True)
    return away == 0 and unheard == 0 and arrived == count


resource.setrlimit(resource.RLIMIT_NOFILE, (max(given.hosts) + 1000, max(20000, max(given.hosts) + 1000)))
switch = fleet.Switch()
fleet.run("ip", "address", "add", "10.77.0.254/24", "dev", switch.name)
tls = None
if not given.plain:
    authority = fleet.Authority("ours")
    tls = ssl.create_default_context(cafile=str(authority.folder / "ca.pem"))
silent = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # a name server that does not answer
silent.bind(("10.77.0.254", 53))
silent.setblocking(False)
print("%6s %10s %8s %11s %10s %8s %12s %8s %12s %10s" % (
    "hosts", "connected", "repeats", "processor", "heard", "arrived", "each takes", "files", "memory", "beats"))
complete = True
for count in given.hosts:
    collector = fleet.Collector("c%d" % count, switch)
    collector.configure(fleet.in_the_clear if given.plain else {})
    if not given.plain:
        authority.certify(collector, "collector.example.org", authority)
        if count == given.hosts[0]:
            key, certificate = authority.issue("web.example.org")
            tls.load_cert_chain(certificate, key)
    collector.file("/etc/resolv.conf").unlink(missing_ok=True)
    collector.file("/etc/resolv.conf").write_text("nameserver 10.77.0.254\n")
    collector.start_rsyslog()
    resource.prlimit(collector.rsyslogd.pid, resource.RLIMIT_NOFILE, (given.descriptors, given.descriptors))
    complete = asyncio.run(measure(count, collector, tls)) and complete
    collector.end_rsyslog()
    try:
        silent.recv(1000)
        sys.exit("the collector has asked a name server: with one that does not answer, it stands still")
    except BlockingIOError:
        pass
sys.exit(0 if complete else 1)
