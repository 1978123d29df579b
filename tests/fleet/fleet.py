"""Hosts and a collector on one machine: each in network, mount and UTS namespaces of its own, with a private copy of
/etc and a /dev/log of its own, on one switch. Everything ends with the process that made them: they live in a process
namespace, and their files in memory."""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

import valid_events

skipped = 77  # CTest's SKIP_RETURN_CODE
patience = 25  # seconds; only what is broken ever takes so long
room = pathlib.Path("/mnt")  # covered by a file system in memory, which all namespaces see
shipped = pathlib.Path(__file__).resolve().parents[2] / "packaging/fleet/rsyslog"
in_the_clear = {"VELTA_TLS": "off", "VELTA_TLS_CA": "/dev/null", "VELTA_TLS_CERTIFICATE": "/dev/null",
                "VELTA_TLS_KEY": "/dev/null"}

# In the namespaces of a new host: nothing of what it changes is the machine's.
furnish = r"""
set -e
echo "$1" >/proc/sys/kernel/hostname
here=/mnt/$1
mkdir -p "$here" && cd "$here"
mkdir etc dev
mount -t tmpfs -o mode=755 etc etc
cp -a /etc/. etc
awk -F: '$3 != 0 || $1 == "root"' etc/passwd >passwd && cat passwd >etc/passwd
mount -t tmpfs -o mode=755 dev dev
for device in null zero full random urandom; do
  touch dev/$device && mount --bind /dev/$device dev/$device
done
mount --move dev /dev
mount --move etc /etc
for folder in /run /tmp /var/log /var/mail /var/spool; do mount -t tmpfs -o mode=755 own $folder; done
mkdir -p /var/spool/rsyslog /var/log/velta-fleet /var/log/private/velta-agent
ln -s private/velta-agent /var/log/velta-agent # as systemd does it for a user of the moment
chown 65534:65534 /var/log/private/velta-agent
ip link set lo up
echo ready
exec cat
"""


def require_tools(names):
    missing = [name for name in names if shutil.which(name, path=search_path) is None]
    if missing:
        sys.exit("these programs are missing: " + " ".join(missing))  # ./test installs them: a fault, not a skip


search_path = os.environ.get("PATH", "") + ":/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin"


def enter_namespaces():
    """Begins the script anew inside of namespaces, once. Where the machine refuses them, the test is skipped."""
    os.environ["PATH"] = search_path
    os.environ["LC_ALL"] = "C"
    if os.environ.get("VELTA_FLEET") == "inside":
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "room", str(room)], check=True)
        return
    unshare = ["unshare", "--net", "--mount", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc",
               "--propagation", "private"]
    attempt = subprocess.run(unshare + ["sh", "-c", "ip link add name try type bridge && "
                                        "ip link add name left type veth peer name right"],
                             capture_output=True, text=True)
    if attempt.returncode != 0:
        print("SKIPPED: this machine refuses network namespaces:", attempt.stderr.strip())
        sys.exit(skipped)
    os.environ["VELTA_FLEET"] = "inside"
    os.execvp(unshare[0], unshare + [sys.executable] + sys.argv)


def wait_for(what, condition, seconds=patience):
    """The first true value of the condition; what it is about is a text, or makes one in the end."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            for node in Node.all:
                print("-- the end of what rsyslogd of", node.name, "says\n", node.log()[-2000:])
            raise AssertionError("in vain after %d s: %s" % (seconds, what() if callable(what) else what))
        time.sleep(0.02)


def environment_in(path):
    """What systemd's EnvironmentFile= makes of it."""
    lines = pathlib.Path(path).read_text().splitlines()
    return dict(line.split("=", 1) for line in lines if line and not line.startswith("#"))


class Switch:
    def __init__(self):
        self.name = "switch"
        run("ip", "link", "add", "name", self.name, "type", "bridge")
        run("ip", "link", "set", self.name, "up")
        self.used = 0

    def plug(self, node):
        self.used += 1
        node.address = "10.77.0.%d" % self.used
        run("ip", "link", "add", "name", "to-" + node.name, "type", "veth", "peer", "name", "eth0", "netns",
            str(node.pid))
        run("ip", "link", "set", "to-" + node.name, "master", self.name, "up")
        node.run("ip", "address", "add", node.address + "/24", "dev", "eth0")
        node.run("ip", "link", "set", "eth0", "up")


def run(*words, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != 0:
        raise AssertionError("%s: %s" % (" ".join(words), done.stdout))
    return done.stdout


new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]


class Authority:
    def __init__(self, name):
        self.folder = room / name
        self.folder.mkdir()
        run("openssl", "req", "-x509", *new_key, "-days", "2", "-subj", "/CN=" + name,
            "-keyout", str(self.folder / "ca.key"), "-out", str(self.folder / "ca.pem"))

    def issue(self, name):
        """The paths of a key and of a certificate of that name."""
        key, request, names, certificate = (str(self.folder / (name + end)) for end in (".key", ".csr", ".ext", ".pem"))
        run("openssl", "req", "-new", *new_key, "-subj", "/CN=" + name, "-keyout", key, "-out", request)
        pathlib.Path(names).write_text("subjectAltName=DNS:" + name)
        run("openssl", "x509", "-req", "-days", "2", "-in", request, "-CA", str(self.folder / "ca.pem"), "-CAkey",
            str(self.folder / "ca.key"), "-CAcreateserial", "-extfile", names, "-out", certificate)
        return key, certificate

    def certify(self, node, name, trusted):
        """Gives it a certificate of that name, and the authority that it is to trust."""
        key, certificate = self.issue(name)
        target = node.file("/etc/velta/tls")
        target.mkdir(parents=True)
        shutil.copy(trusted.folder / "ca.pem", target / "ca.pem")
        shutil.copy(key, target / "own.key")
        shutil.copy(certificate, target / "own.pem")


class Node:
    """One machine, with the rsyslogd of Debian and its rsyslog.conf."""

    all = []
    furnish = furnish

    def __init__(self, name, switch):
        self.name = name
        self.holder = subprocess.Popen(["unshare", "--net", "--mount", "--uts", "--propagation", "private", "sh", "-c",
                                        self.furnish, "sh", name], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       text=True)
        if self.holder.stdout.readline() != "ready\n":
            raise AssertionError("no host " + name)
        self.pid = self.holder.pid
        self.enter = ["nsenter", "--target", str(self.pid), "--mount", "--net", "--uts", "--root", "--wd", "--"]
        switch.plug(self)
        self.rsyslogd = None
        Node.all.append(self)
        self.environment = {}
        # The kernel's messages are the machine's.
        run("sed", "-i", "/imklog/d", str(self.file("/etc/rsyslog.conf")))
        for file in self.file("/etc/rsyslog.d").glob("*"):
            file.unlink()

    def file(self, path):
        """One of its files, as the test sees it."""
        return pathlib.Path("/proc/%d/root%s" % (self.pid, path))

    def run(self, *words, **options):
        return run(*self.enter, *words, **options)

    def start(self, *words, log):
        with open(self.file(log), "a") as out:
            return subprocess.Popen(self.enter + list(words), stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                    env=dict(os.environ, **self.environment))

    def configure_rsyslog(self, files, environment):
        for file in files:
            shutil.copy(file, self.file("/etc/rsyslog.d"))
        self.environment = environment

    def start_rsyslog(self):
        self.file("/run/velta-forward").mkdir()  # as velta.conf has systemd do it, and remove it at the end
        self.rsyslogd = self.start("rsyslogd", "-n", "-i", "/run/rsyslogd.pid", "-f", "/etc/rsyslog.conf",
                                   log="/var/log/rsyslogd")
        wait_for("rsyslogd of " + self.name, lambda: self.file("/run/rsyslogd.pid").exists())

    def end_rsyslog(self, number=signal.SIGTERM):
        self.rsyslogd.send_signal(number)
        self.rsyslogd.wait(patience)
        self.file("/run/rsyslogd.pid").unlink(missing_ok=True)
        shutil.rmtree(self.file("/run/velta-forward"))

    def log(self):
        """What rsyslogd says of itself."""
        return "".join(file.read_text() for file in map(self.file, ["/var/log/rsyslogd", "/var/log/syslog"])
                       if file.exists())


class Host(Node):
    """With the real agent, which is nobody there."""

    events = "/var/log/velta-agent/alerts.jsonl"

    def __init__(self, name, switch, agent, options):
        super().__init__(name, switch)
        self.expected = []  # the names that became root; one reading of several reports them in an order of its own
        self.agent_command = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                              self.take(pathlib.Path(agent)), *options]

    def take(self, agent):
        """Where nobody may run it: the folder of a build may be closed to others."""
        module = agent.parent / "libvelta_detect-user.so"
        if not module.exists():
            return str(agent)  # it is installed
        folder = self.file("/run/velta-built")
        folder.mkdir()
        for file in [agent, module]:
            shutil.copy(file, folder)
        return "/run/velta-built/" + agent.name

    def configure(self, collector, values, *more):
        """As shipped, but for these values; more: further files of the same folder."""
        files = ["30-velta-forward.conf", *more]
        self.configure_rsyslog([shipped / "host" / each for each in files],
                               {**environment_in(shipped / "host/velta-host.env"),
                                "VELTA_COLLECTOR": collector.address, **values})

    def start_agent(self):
        self.agent = self.start(*self.agent_command, log="/var/log/agent")
        wait_for("agent of " + self.name,
                 lambda: "watching /etc/passwd" in self.file("/var/log/agent").read_text())

    def end_agent(self):
        self.agent.terminate()
        return self.agent.wait(patience)

    def add_account(self, name):
        self.run("useradd", "-o", "-u", "0", "-M", name)
        self.expected.append(name)

    def add_line(self, name, home="/"):
        with open(self.file("/etc/passwd"), "a") as passwd:
            passwd.write("%s:x:0:0::%s:/bin/sh\n" % (name, home))
        self.expected.append(name)

    def text(self, path=events):
        file = self.file(path)
        return file.read_text() if file.exists() else ""

    def produced(self):
        """The events in its files, those apart that a full disk has cut, and those in its log."""
        files = "".join(self.text(self.events + end) for end in [".1", ""])
        told = re.findall(r"velta-agent\[\d+\]: @cee: (.*)", self.text("/var/log/auth.log"))
        return [line for line in files.splitlines() if line.endswith("}")] + told

    def lines_at(self, path=events):
        """The lines of a file, each with the offset of its beginning."""
        found, at = [], 0
        for line in self.text(path).splitlines(keepends=True):
            found.append((at, line.rstrip("\n")))
            at += len(line)  # ASCII, as the agent writes it
        return found


class Collector(Node):
    events = "/var/log/velta-fleet/events.jsonl"
    others = "/var/log/velta-fleet/others.jsonl"

    def configure(self, values):
        """As shipped, but for these values."""
        self.configure_rsyslog([shipped / "collector/30-velta-collector.conf"],
                               {**environment_in(shipped / "collector/velta-collector.env"), **values})

    def lines(self, path=events):
        """Those that are whole."""
        file = self.file(path)
        text = file.read_text() if file.exists() else ""
        return text.split("\n")[:-1]

    def records(self, host):
        """The lines of that host: where each event begins there, and the event as it was written there."""
        mine = [line for line in self.lines() if json.loads(line)["host"] == host.name]
        return [(int(json.loads(line)["at"]), line.split(',"event":', 1)[1][:-1]) for line in mine]

    def names(self, host):
        """Of the accounts that were reported from there, each once."""
        return list(dict.fromkeys(json.loads(event)["eventContent"]["userName"] for _, event in self.records(host)))

    def hold_to_schemas(self, hosts, folder):
        """Every event that has come, and every other that these hosts have written or told to syslog."""
        come = [event for host in hosts for _, event in self.records(host)]
        assert come and len(come) == len(self.lines()), "from a host that nobody has named"
        valid_events.Schemas(folder).hold(come + [event for host in hosts for event in host.produced()])
