#!/usr/bin/python3
"""tls_test.py AGENT SOURCE_FOLDER

With the values of the shipped .env files, only the collector's address aside: TLS is on. Alerts of a host with a
certificate of our authority arrive; those of a host with another one's, and of one with a name that is not ours, do
not."""

import pathlib
import shutil
import sys

import fleet

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
shipped = sources / "packaging/fleet/rsyslog"
fleet.require_tools(["rsyslogd", "ip", "unshare", "nsenter", "setpriv", "openssl"])
fleet.enter_namespaces()


new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]


class Authority:
    def __init__(self, name):
        self.folder = fleet.room / name
        self.folder.mkdir()
        fleet.run("openssl", "req", "-x509", *new_key, "-days", "2", "-subj", "/CN=" + name,
                  "-keyout", str(self.folder / "ca.key"), "-out", str(self.folder / "ca.pem"))

    def certify(self, node, name, trusted):
        """Gives it a certificate of that name, and the authority that it is to trust."""
        key, request, names, certificate = (str(self.folder / (name + end)) for end in (".key", ".csr", ".ext", ".pem"))
        fleet.run("openssl", "req", "-new", *new_key, "-subj", "/CN=" + name, "-keyout", key, "-out", request)
        pathlib.Path(names).write_text("subjectAltName=DNS:" + name)
        fleet.run("openssl", "x509", "-req", "-days", "2", "-in", request, "-CA", str(self.folder / "ca.pem"), "-CAkey",
                  str(self.folder / "ca.key"), "-CAcreateserial", "-extfile", names, "-out", certificate)
        target = node.file("/etc/velta/tls")
        target.mkdir(parents=True)
        shutil.copy(trusted.folder / "ca.pem", target / "ca.pem")
        shutil.copy(key, target / "own.key")
        shutil.copy(certificate, target / "own.pem")


ours, theirs = Authority("ours"), Authority("theirs")
switch = fleet.Switch()
collector = fleet.Collector("collector", switch)
collector.configure_rsyslog([shipped / "collector/30-velta-collector.conf"],
                            fleet.environment_in(shipped / "collector/velta-collector.env"))
ours.certify(collector, "collector.example.org", ours)


def host(name, certificate, authority):
    made = fleet.Host(name, switch, agent, ["--output", "/var/log/velta-agent/alerts.jsonl"])
    made.configure_rsyslog([shipped / "host/30-velta-forward.conf"],
                           {**fleet.environment_in(shipped / "host/velta-host.env"),
                            "VELTA_COLLECTOR": collector.address})
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
