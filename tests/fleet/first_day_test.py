#!/usr/bin/python3
"""first_day_test.py PACKAGES SOURCE_FOLDER

What somebody does on the first day: installs the package with apt-get, follows docs/fleet.md with the configuration of
rsyslog that comes with it, starts the agent as an ordinary user, and makes an account that is root. The alert goes
through syslog to a collector on another host.

The host is an overlay of this machine: apt-get and dpkg find the packages that are here, and change nothing of it. It
has no network but the switch, so nothing can be fetched."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import fleet

packages, sources = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
fleet.require_tools(["apt-get", "dpkg-query", "rsyslogd", "ip", "unshare", "nsenter", "setpriv", "useradd"])
fleet.enter_namespaces()


def require_an_overlay():
    for folder in ["/etc", "/usr", "/var", "/var/lib"]:
        if os.path.ismount(folder):
            print("SKIPPED:", folder, "is a file system of its own here, and would not be in an overlay of /")
            sys.exit(fleet.skipped)
    attempt = subprocess.run(["unshare", "--mount", "sh", "-c", "cd /mnt && mkdir try try/upper try/work try/root && "
                              "mount -t overlay try -o lowerdir=/,upperdir=try/upper,workdir=try/work try/root"],
                             capture_output=True, text=True)
    if attempt.returncode != 0:
        print("SKIPPED: this machine refuses an overlay of /:", attempt.stderr.strip())
        sys.exit(fleet.skipped)


class Overlay(fleet.Host):
    furnish = r"""
set -e
echo "$1" >/proc/sys/kernel/hostname
mkdir "/mnt/$1" && cd "/mnt/$1"
mkdir upper work root
mount -t overlay own -o lowerdir=/,upperdir=upper,workdir=work root
cd root
for folder in dev run tmp var/log var/mail var/spool; do mount -t tmpfs -o mode=755 own $folder; done
mount -t proc proc proc
for device in null zero full random urandom; do
  touch dev/$device && mount --bind /dev/$device dev/$device
done
mkdir -p var/spool/rsyslog var/log/apt
awk -F: '$3 != 0 || $1 == "root"' etc/passwd >run/passwd && cat run/passwd >etc/passwd
ip link set lo up
echo ready
exec chroot . cat
"""

    def install(self, package):
        shutil.copy(package, self.file("/tmp"))
        no_sources = ["-o", "Dir::Etc::SourceList=/dev/null", "-o", "Dir::Etc::SourceParts=/dev/null"]
        # --reinstall: for a machine that has the package already.
        self.run("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", *no_sources, "install", "--assume-yes",
                 "--reinstall", "--no-install-recommends", "/tmp/" + package.name, timeout=60)


require_an_overlay()
switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
host = Overlay("host", switch, "/usr/bin/velta-agent", ["--syslog"])

package, = packages.glob("velta-agent_*.deb")
host.install(package)
state = host.run("dpkg-query", "-W", "-f", "${db:Status-Status}", "velta-agent")
assert state == "installed", state


def follow(node, heading, folder, values, also=()):
    """The commands below that heading of the page, apart from those that take a network or systemd."""
    blocks = re.findall(r"```sh\n(.*?)```", page.split("\n## %s\n" % heading)[1].split("\n## ")[0], re.DOTALL)
    wanted = "".join(blocks[number] for number in [0, *also])
    commands = [line.replace(installed, folder) for line in wanted.splitlines()
                if not line.startswith(("apt-get", "systemctl"))]
    assert "cd " + folder in commands, commands
    node.run("sh", "-euc", "\n".join(commands))
    file = node.file("/etc/velta/fleet.env")
    text = file.read_text()
    for name, value in values.items():
        text, found = re.subn("^%s=.*$" % name, "%s=%s" % (name, value), text, flags=re.MULTILINE)
        assert found == 1, name
    file.write_text(text)
    node.environment = fleet.environment_in(file)
    return blocks


page = (sources / "docs/fleet.md").read_text()
installed = "/usr/share/doc/velta-agent/examples/fleet/rsyslog"
shutil.copytree(host.file(installed), collector.file("/tmp/rsyslog"))  # the collector has no agent
follow(collector, "The collector", "/tmp/rsyslog", fleet.in_the_clear)
blocks = follow(host, "A host", installed, {**fleet.in_the_clear, "VELTA_COLLECTOR": collector.address}, also=[2])
check = blocks[1].splitlines()[0]
for node in [host, collector]:
    said = node.run("sh", "-euc", check)
    assert "rsyslogd -N1" in check and "error" not in said and "warning" not in said, said
collector.start_rsyslog()
host.start_rsyslog()
host.start_agent()
user = host.run("stat", "-c", "%u", "/proc/%d" % host.agent.pid).strip()
assert user == "65534", "the agent is the user " + user

host.add_account("intruder")
fleet.wait_for(lambda: "the alert at the collector: %s" % collector.lines(), lambda: collector.names(host))
assert collector.names(host) == ["intruder"], collector.lines()
collector.hold_to_schemas([host], sources / "docs/schema")
print("\n".join(collector.lines()))
assert host.end_agent() == 0
