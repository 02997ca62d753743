#!/usr/bin/env python3
"""The configuration template with TLS, against the real server: a node's rights suffice for its
work and for nothing else.  Signatures, and hostile traffic.  rights.py BUILD TEMPLATE"""

import json
import os
import random
import re
import socket
import ssl
import subprocess
import sys
import tempfile
import time

from fleet import Fleet, wait_for

build, template = sys.argv[1:3]
keys = tempfile.mkdtemp(prefix="zel-keys-", dir="/tmp")


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=keys)


def make_authority(name):
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
            "-keyout", name + ".key", "-out", name + ".crt", "-subj", "/CN=" + name)


def make_certificate(name, authority="authority", common_name=None):
    openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", name + ".key",
            "-out", name + ".csr", "-subj", "/CN=" + (common_name or name))
    with open(f"{keys}/{name}.ext", "w") as out:
        out.write("subjectAltName=IP:127.0.0.1\n")
    openssl("x509", "-req", "-in", name + ".csr", "-CA", authority + ".crt", "-CAkey", authority + ".key",
            "-CAcreateserial", "-days", "2", "-out", name + ".crt", "-extfile", name + ".ext")


make_authority("authority")
make_authority("stranger")
for name in ("server", "controller", "observer", "n1", "n2"):
    make_certificate(name)
make_certificate("forged", "stranger", "n1")


def files(name):
    return {"ZEL_NATS_CA": f"{keys}/authority.crt", "ZEL_NATS_CERT": f"{keys}/{name}.crt",
            "ZEL_NATS_KEY": f"{keys}/{name}.key"}


def configuration(_):
    """The template for one server and two nodes, without what Fleet writes itself."""
    text = open(template).read()
    block = re.search(r'    \{ user: "CN=NODE".*?\n    \}\n', text, re.S).group(0)
    text = text.replace(block, "".join(block.replace("NODE", node).replace("GROUP", "all") for node in ("n1", "n2")))
    text = re.sub(r"^(server_name|listen|jetstream).*\n", "", text, flags=re.M)
    text = re.sub(r"^cluster \{.*?^\}\n", "", text, flags=re.M | re.S)
    return (text.replace("CERTIFICATE", f"{keys}/server.crt").replace("KEY", f"{keys}/server.key")
            .replace("AUTHORITY", f"{keys}/authority.crt"))


fleet = Fleet(build, config=configuration, env=files("controller"))
fleet.init()
secret = f"{fleet.folder}/secret"
public = subprocess.run([f"{build}/zelctl", "fleet", "key", secret], check=True, capture_output=True, text=True).stdout
assert os.stat(secret).st_mode & 0o77 == 0
for name in ("n1", "n2"):
    fleet.add_node(name, env=files(name), agent_options=["--nats-inbox", f"_INBOX_{name}", "--key", public.strip()])
fleet.await_nodes()

# The rights suffice: apply, ask, relay.  Unsigned and otherwise signed revisions are not taken.
code, output = fleet.zelctl("apply", fleet.policy(1, 4))
assert code == 11 and output["counts"] == {"rejected": 2}, output
fleet.env["ZEL_FLEET_KEY"] = secret
code, output = fleet.zelctl("apply", fleet.policy(1, 5))
assert code == 0, output
other = f"{fleet.folder}/other"
subprocess.run([f"{build}/zelctl", "fleet", "key", other], check=True, capture_output=True)
fleet.env["ZEL_FLEET_KEY"] = other
assert fleet.zelctl("apply", fleet.policy(1, 6))[0] == 11
assert fleet.nodes["n1"].policies() == {1: 5}
fleet.env["ZEL_FLEET_KEY"] = secret
assert fleet.zelctl("apply", fleet.policy(1, 7))[0] == 0
assert fleet.zelctl("apply", "--dry-run", fleet.policy(1, 8))[0] == 0
assert fleet.zelctl("drift")[0] == 0
assert fleet.zelctl("stats")[0] == 0
relayed = subprocess.run([f"{build}/zelctl", "--service", fleet.address + "/zel.node.n1", "policy", "show"], env=fleet.env,
                         capture_output=True, text=True)
assert relayed.returncode == 0, relayed.stderr

# An observer looks, and cannot change anything.
observer = dict(fleet.env, **files("observer"))
fleet.env, controller = observer, fleet.env
wait_for(lambda: fleet.zelctl("nodes")[0] == 0, what="nodes that an observer sees")
assert fleet.zelctl("log")[0] == 0
assert fleet.zelctl("apply", fleet.policy(1, 9))[0] not in (0, 10, 11, 12)
fleet.env = controller


class Raw:
    """A participant that speaks the protocol itself."""

    def __init__(self, name):
        context = ssl.create_default_context(cafile=f"{keys}/authority.crt")
        if name:
            context.load_cert_chain(f"{keys}/{name}.crt", f"{keys}/{name}.key")
        plain = socket.create_connection(("127.0.0.1", fleet.ports[0]), 5)
        self.received = b""
        self.socket = plain
        self.until(rb"INFO .*\r\n")
        self.socket = context.wrap_socket(plain, server_hostname="127.0.0.1")
        self.send(b'CONNECT {"verbose":false,"headers":true,"tls_required":true}\r\nPING\r\n')
        self.until(rb"PONG\r\n")

    def send(self, data):
        self.socket.sendall(data)

    def until(self, pattern):
        self.socket.settimeout(5)
        while not (match := re.search(pattern, self.received)):
            more = self.socket.recv(65536)
            if not more:
                raise ConnectionError(self.received)
            self.received += more
        self.received = self.received[match.end():]
        return match.group(0)

    def is_forbidden(self, command):
        self.received = b""
        self.send(command + b"PING\r\n")
        return b"Permissions Violation" in self.until(rb"(-ERR [^\r]*\r\n.*)?PONG\r\n")


def publish(subject, data=b"{}", reply=b""):
    return b"PUB %s %s %d\r\n%s\r\n" % (subject.encode(), reply, len(data), data)


def subscribe(subject):
    subscribe.number = getattr(subscribe, "number", 0) + 1
    return b"SUB %s %d\r\n" % (subject.encode(), subscribe.number)


for name in (None, "forged"):
    try:
        Raw(name)
        raise AssertionError(f"connected with the certificate {name}")
    except (ConnectionError, ssl.SSLError):
        pass

node = Raw("n1")
for subject in ("zel.status.n1", "$JS.API.DIRECT.GET.ZEL_OBJECTS.zel.obj.a.0", "$JS.API.DIRECT.GET.ZEL_DESIRED.zel.desired.all"):
    assert not node.is_forbidden(publish(subject)), subject
for subject in ("zel.rev.all", "zel.node.n1", "_INBOX_n1.x"):
    assert not node.is_forbidden(subscribe(subject)), subject
for subject in ("zel.desired", "zel.desired.all", "zel.obj.a.0", "zel.rev.all", "zel.status.n2", "zel.report.n2", "zel.node.n2",
                "zel.group.all", "zel.ask.all", "zel.ask.node.n2", "_INBOX.x.y", "_INBOX_n2.x.y", "$JS.API.STREAM.INFO.ZEL_DESIRED",
                "$JS.API.STREAM.PURGE.ZEL_DESIRED", "$JS.API.STREAM.DELETE.ZEL_DESIRED", "$JS.API.STREAM.MSG.DELETE.ZEL_STATUS",
                "$JS.API.CONSUMER.CREATE.ZEL_STATUS", "$JS.API.DIRECT.GET.ZEL_STATUS.zel.status.n2",
                "$JS.API.DIRECT.GET.ZEL_DESIRED.zel.desired.secret"):
    assert node.is_forbidden(publish(subject)), f"n1 may publish to {subject}"
for subject in (">", "zel.>", "zel.status.*", "zel.status.n2", "zel.node.n2", "zel.ask.node.n2", "zel.rev.*", "zel.rev.secret",
                "zel.group.secret", "_INBOX.>", "_INBOX_n2.>", "$JS.>"):
    assert node.is_forbidden(subscribe(subject)), f"n1 may subscribe to {subject}"

# Hostile traffic, from a controller that went mad and from a node within its rights.
rng = random.Random(3)
hostile = Raw("controller")
seed = open(secret, "rb").read() * 20
for i in range(5000):
    subject = rng.choice(["zel.node.n1", "zel.group.all", "zel.ask.node.n1"])
    data = bytes(rng.randrange(256) for _ in range(rng.randrange(60)))
    if i % 3 == 0:
        data = rng.choice([b"plan\n", b"stats\n", b"retry", b"drift", b"ZM1\n", b"\x01BOK"]) + data + seed[:rng.randrange(200)]
    hostile.send(publish(subject, data, b"_INBOX.nobody" if i % 2 else b""))
    if i % 100 == 0:
        node.send(publish("zel.status.n1", data))
        node.send(publish("zel.status.n1", b'{"node":"n2","groups":[],"start":"","service":true,"policies":0,'
                                          b'"fingerprint":"","overridden":[],"time":99999999999999}'))
for bits in range(200):  # as desired state, in the store
    hostile.send(publish("zel.desired.all", os.urandom(bits)))
hostile.send(b"PING\r\n")
hostile.until(rb"PONG\r\n")
for name in fleet.nodes:
    assert fleet.nodes[name].agent.process.poll() is None, f"the agent of {name} has ended"
assert fleet.nodes["n2"].policies() == {1: 7}
# The store's newest bytes are no manifest.  That is reported, and the next revision replaces them.
wait_for(lambda: "not a manifest" in str(fleet.zelctl("status")[1]), what="damage that is reported")
code, output = fleet.zelctl("apply", fleet.policy(1, 9))
assert code == 0, output
assert fleet.nodes["n1"].policies() == fleet.nodes["n2"].policies() == {1: 9}


# n1 can neither say that n2 has applied a revision, nor write to the terminal of who looks.
def forged(name, verdict, text, sequence):
    revision = {"epoch": output["epoch"], "sequence": sequence}
    return json.dumps({"node": name, "start": "x", "service": True, "policies": 1, "fingerprint": "", "overridden": [],
                       "time": int(time.time() * 1000), "groups": [
                           {"group": "all", "wanted": revision, "applied": revision, "verdict": verdict, "text": text}]}).encode()


fleet.nodes["n2"].agent.kill()
node.send(publish("zel.status.n1", forged("n1", "refused", "\x1b[31mred\u202e\nn2 applied", output["revision"])))
shown = wait_for(lambda: (lambda text: "red" in text and text)(fleet.start_zelctl("nodes", as_json=False).communicate()[0]),
                 what="the hostile text")
assert "\x1b" not in shown and "\u202e" not in shown and "\nn2 applied" not in shown, repr(shown)
writer = fleet.start_zelctl("apply", fleet.policy(1, 10), wait=3)
while writer.poll() is None:
    for subject in ("zel.report.n1", "zel.status.n1"):
        node.send(publish(subject, forged("n2", "applied", "", output["revision"] + 1)))
    time.sleep(0.05)
assert writer.returncode == 12, f"a forged verdict counts: {writer.communicate()}"
fleet.stop()
subprocess.run(["rm", "-r", keys], check=True)
print("a node's rights suffice for its work and for nothing else; hostile traffic did no harm")
