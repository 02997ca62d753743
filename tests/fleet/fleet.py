"""Servers, agents and services on loopback, for tests, benchmarks and demonstrations.

Everything lives in a folder below /tmp and ends with the process that started it."""

import atexit
import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time


def end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def free_ports(count):
    """Ports that nobody listens at now."""
    sockets = [socket.socket() for _ in range(count)]
    for one in sockets:
        one.bind(("127.0.0.1", 0))
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


def wait_for(condition, seconds=20, what="a condition"):
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what} does not hold within {seconds} s")
        time.sleep(0.02)


class Process:
    def __init__(self, command, log, env=None, ready=None):
        self.command, self.log, self.env, self.ready = command, log, env, ready
        self.start()

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE if self.ready else log, stderr=log,
                                            env=self.env, preexec_fn=end_with_parent)
        if self.ready:
            line = self.process.stdout.readline().decode()
            assert line.startswith(self.ready), f"{self.command[0]}: {line!r}, see {self.log}"

    def kill(self):
        self.process.kill()
        self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()

    def restart(self):
        self.kill()
        self.start()


class Fleet:
    def __init__(self, build, servers=1, config=None, env=None, zelctl_options=()):
        """config: a function from the number of a server to more lines of its configuration."""
        self.build = build
        self.folder = tempfile.mkdtemp(prefix="zel-fleet-", dir="/tmp")
        atexit.register(self.stop)
        self.env = dict(os.environ, **(env or {}))
        self.zelctl_options = list(zelctl_options)
        self.nodes = {}
        ports = free_ports(3 * servers)
        self.ports, routes, self.monitors = ports[:servers], ports[servers:2 * servers], ports[2 * servers:]
        scheme = "tls" if config and "tls {" in config(0) else "nats"
        self.address = scheme + "://" + ",".join(f"127.0.0.1:{port}" for port in self.ports)
        self.servers = []
        for i in range(servers):
            path = f"{self.folder}/server{i}"
            with open(path + ".conf", "w") as out:
                out.write(f"""listen: "127.0.0.1:{self.ports[i]}"
http: "127.0.0.1:{self.monitors[i]}"
server_name: s{i}
jetstream {{ store_dir: "{path}" }}
""")
                if servers > 1:
                    urls = ", ".join(f'"nats://127.0.0.1:{route}"' for route in routes)
                    out.write(f'cluster {{ name: c, listen: "127.0.0.1:{routes[i]}", routes: [{urls}] }}\n')
                out.write(config(i) if config else "")
            self.servers.append(Process(["nats-server", "-c", path + ".conf"], path + ".log"))
        for port in self.ports:
            wait_for(lambda: self.listens(port), what="a server")

    @staticmethod
    def listens(port):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", port)) == 0

    def init(self, replicas=None):
        wait_for(lambda: self.zelctl("init", "--replicas", str(replicas or len(self.servers)))[0] == 0, 30, "init")

    def start_zelctl(self, *arguments, group="all", wait=10, as_json=True):
        command = [f"{self.build}/zelctl", *(["--json"] if as_json else []), *self.zelctl_options, "fleet",
                   "--servers", self.address, "--group", group, "--wait", str(wait), *arguments]
        return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.env)

    def zelctl(self, *arguments, **options):
        """The exit code and what was printed, as JSON if it is."""
        with self.start_zelctl(*arguments, **options) as started:
            said, complaint = started.communicate(timeout=180)
        try:
            return started.returncode, json.loads(said.strip().splitlines()[-1])
        except (IndexError, json.JSONDecodeError):
            return started.returncode, said + complaint

    def add_node(self, name, groups=("all",), env=None, agent_options=(), keeps=False, service_options=()):
        self.nodes[name] = Node(self, name, groups, env, agent_options, keeps, service_options)
        return self.nodes[name]

    def await_nodes(self, count=None, group="all"):
        wait_for(lambda: len(self.zelctl("nodes", group=group)[1]) >= (count or len(self.nodes)), what="all nodes")

    def stop(self):
        for node in self.nodes.values():
            node.agent.kill()
            node.service.kill()
        for server in self.servers:
            server.kill()
        if os.environ.get("ZEL_KEEP"):
            print("kept:", self.folder)
        else:
            shutil.rmtree(self.folder, ignore_errors=True)
        self.nodes, self.servers = {}, []
        atexit.unregister(self.stop)

    def policy(self, policy_id, vrf=1, pairs=1):
        """A file with a policy of so many pairs.  A service with --max-message 4096 refuses 100 of them."""
        path = f"{self.folder}/policy-{policy_id}-{vrf}-{pairs}.json"
        group = [{"id": i + 1,
                  "match_group": {"id": i + 1, "matches": [{"id": i + 1, "service_element": {
                      "sip": f"10.{i // 250 % 250}.{i % 250}.0/24", "dport": i % 65536, "protocol": "tcp"}}]},
                  "action_group": {"id": 1, "actions": [{"id": 1, "set_vrf": vrf} if i == 0 else {"ref": 1}]}}
                 for i in range(pairs)]
        with open(path, "w") as out:
            json.dump({"id": policy_id, "match_action_pair_group": group}, out)
        return path


class Node:
    def __init__(self, fleet, name, groups, env, agent_options, keeps, service_options):
        self.fleet, self.name = fleet, name
        path = f"{fleet.folder}/{name}"
        self.address = f"unix:{path}.sock"
        kept = ["--state", path + ".policies"] if keeps else []
        self.service = Process([f"{fleet.build}/zeld", "--listen", self.address, "--log-level", "warn", *kept,
                                *service_options], path + ".service.log", ready="ready")
        groups = [word for group in groups for word in ("--group", group)]
        self.agent = Process([f"{fleet.build}/zelagent", "--servers", fleet.address, "--node", name, *groups,
                              "--service", self.address, "--state", path + ".state", *agent_options],
                             path + ".agent.log", env=dict(fleet.env, **(env or {})), ready="ready")

    def policies(self):
        """Each policy of the service with its VRF."""
        done = subprocess.run([f"{self.fleet.build}/zelctl", "--json", "--service", self.address, "policy", "show"],
                              capture_output=True, text=True, timeout=30)
        if done.returncode != 0:
            return None
        return {policy["id"]: find_vrf(policy) for policy in json.loads(done.stdout)}


def find_vrf(value):
    """The first VRF that an action sets."""
    if isinstance(value, dict):
        if "set_vrf" in value:
            return value["set_vrf"]
        value = list(value.values())
    if isinstance(value, list):
        for one in value:
            found = find_vrf(one)
            if found is not None:
                return found
    return None
