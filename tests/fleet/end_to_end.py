#!/usr/bin/env python3
"""zelctl fleet, agents and services with one real server: end_to_end.py BUILD"""

import os
import signal
import subprocess
import sys
import time

from fleet import Fleet, Process, wait_for

OK, BAD_INPUT, NO_SERVICE, SOME, NONE, SILENT = 0, 3, 4, 10, 11, 12
fleet = Fleet(sys.argv[1])


def check(condition, what):
    if not condition:
        raise AssertionError(what)


def expect(code, *arguments, **options):
    got, output = fleet.zelctl(*arguments, **options)
    check(got == code, f"{arguments}: exit code {got} instead of {code}: {output}")
    return output


def policies():
    return {name: node.policies() for name, node in fleet.nodes.items()}


def everywhere(expected):
    wait_for(lambda: all(found == expected for found in policies().values()), what=f"{expected} everywhere")


def verdicts(output):
    return {node["node"]: node["verdict"] for node in output["nodes"]}


# Without streams, and without nodes, nothing is a success.
expect(NO_SERVICE, "apply", fleet.policy(1))
fleet.init()
check(expect(OK, "init")["epoch"] == expect(OK, "init")["epoch"], "init can be repeated")
expect(SILENT, "apply", fleet.policy(1))

# "small" refuses large policies; "edge" has a group of its own that comes later.
fleet.add_node("plain")
small = fleet.add_node("small", service_options=["--max-message", "4096"])
fleet.await_nodes(2)
wait_for(lambda: fleet.zelctl("status")[0] == OK, what="both at revision 1")
everywhere({1: 1})

# Several policies are one revision: refused as a whole, with the reason.
output = expect(SOME, "apply", fleet.policy(2, 5), fleet.policy(3, 5, pairs=100))
check(verdicts(output) == {"plain": "applied", "small": "refused"}, output)
check("too large" in str(output), output)
check(policies() == {"plain": {1: 1, 2: 5, 3: 5}, "small": {1: 1}}, policies())
# What the servers keep of statuses is up to 1 s older than what they pass on.
wait_for(lambda: fleet.zelctl("nodes", "--behind")[0] == SOME, what="a refusal that is kept")
check([node["node"] for node in expect(SOME, "nodes", "--behind")] == ["small"], "nodes --behind")
expect(OK, "undo")
everywhere({1: 1})

# Two writers, and writes that depend on a revision.
check(expect(OK, "log")[0]["revision"] == 3, "log")
expect(NO_SERVICE, "apply", "--expect", "2", fleet.policy(1, 9))
expect(OK, "apply", "--expect", "3", "--message", "why", fleet.policy(1, 9))
check(expect(OK, "log")[0]["comment"] == "why", "message")
writers = [subprocess.Popen([f"{fleet.build}/zelctl", "fleet", "--servers", fleet.address, "--wait", "0", "apply",
                             fleet.policy(100 + i)], stdout=subprocess.DEVNULL) for i in range(8)]
check([writer.wait() for writer in writers].count(SILENT) + [w.returncode for w in writers].count(OK) == 8, "writers")
everywhere({1: 9} | {100 + i: 1 for i in range(8)})
expect(OK, "delete", *[str(100 + i) for i in range(8)])
everywhere({1: 9})
expect(BAD_INPUT, "delete", "77")

# A dry run, differences.
output = expect(OK, "apply", "--dry-run", fleet.policy(1, 4), fleet.policy(2))
check(all("would set" in node["text"] for node in output["nodes"]), output)
everywhere({1: 9})
check([(d["policy"], d["change"]) for d in expect(OK, "diff", fleet.policy(1, 4), fleet.policy(2))] ==
      [(1, "~"), (2, "+")], "diff")
check([d["policy"] for d in expect(OK, "diff", "--from", "1", "--to", "2")] == [2, 3], "diff of revisions")

# By time: unconfirmed revisions go back, expired policies go.
expect(OK, "apply", "--confirm", "2", fleet.policy(2))
everywhere({1: 9, 2: 1})
expect(NO_SERVICE, "apply", fleet.policy(3))
everywhere({1: 9})
wait_for(lambda: fleet.zelctl("status")[0] == NONE, what="reverted")
expect(OK, "undo")
expect(OK, "apply", "--confirm", "3", fleet.policy(2))
expect(OK, "confirm")
time.sleep(3.5)
check(policies()["plain"] == {1: 9, 2: 1}, "confirmed")
expect(OK, "apply", "--expire", "2", fleet.policy(3))
fleet.servers[0].process.send_signal(signal.SIGSTOP)  # the network is cut, as far as the agents can tell
everywhere({1: 9, 2: 1})
fleet.servers[0].process.send_signal(signal.SIGCONT)

# In shares, and taken back when a node refuses.
check(expect(NONE, "apply", "--canary", "99.9%,100%", fleet.policy(4, pairs=100))["counts"] == {"applied": 2}, "canary")
everywhere({1: 9, 2: 1})
expect(OK, "apply", "--canary", "20%,100%", fleet.policy(4))
everywhere({1: 9, 2: 1, 4: 1})

# A later group wins, and the node says so.
edge = fleet.add_node("edge", groups=("all", "edge"))
fleet.await_nodes(1, group="edge")
expect(OK, "apply", fleet.policy(1, 77), group="edge")
wait_for(lambda: edge.policies() == {1: 77, 2: 1, 4: 1}, what="the later group")
wait_for(lambda: next(n for n in fleet.zelctl("nodes")[1] if n["node"] == "edge")["overridden"] == ["all 0/1"],
         what="overridden")

# Questions.
subprocess.run([f"{fleet.build}/zelctl", "--service", edge.address, "policy", "delete", "2"], check=True,
               stdout=subprocess.DEVNULL)
check(expect(SOME, "drift")["nodes"]["edge"]["missing"] == ["0/2"], "drift")
expect(OK, "retry")
wait_for(lambda: fleet.zelctl("drift")[0] == OK, what="drift repaired")
check([s["nodes"] for s in expect(OK, "stats")["pairs"]] == [3] * 3, "stats")

# Direct requests go through the agent.
direct = [f"{fleet.build}/zelctl", "--service"]
node = fleet.address + "/zel.node.edge"
check("77" not in subprocess.run(direct + [node, "policy", "show"], capture_output=True, text=True).stdout, "table")
check(subprocess.run(direct + [node, "policy", "delete", "99"], capture_output=True).returncode == 1, "refused directly")
check(subprocess.run(direct + [fleet.address + "/zel.group.edge", "policy", "show"], capture_output=True).returncode == 0,
      "to a group")

# Services and agents that restart, and a node that was away.
small.service.restart()  # without its policies
edge.agent.kill()
expect(SILENT, "apply", fleet.policy(5, 6), wait=3)
plain = fleet.nodes["plain"]
plain.agent.restart()
wait_for(lambda: small.policies() == plain.policies() == {1: 9, 2: 1, 4: 1, 5: 6}, what="repaired")
edge.service.restart()
edge.agent.start()
wait_for(lambda: edge.policies() == {1: 77, 2: 1, 4: 1, 5: 6}, what="caught up")
wait_for(lambda: fleet.zelctl("status")[0] == OK, what="all applied")
# Many nodes in one process, a connection each: every one reports for itself.
many = Process([f"{fleet.build}/tests/fleet/node_simulator", ",".join(map(str, fleet.ports)), "300", "0", "many"],
               f"{fleet.folder}/simulator.log", ready="ready")
fleet.await_nodes(300, group="many")
for vrf in (1, 2):
    check(expect(OK, "apply", fleet.policy(1, vrf, pairs=50), group="many")["counts"] == {"applied": 300}, "many nodes")
many.kill()
check(expect(SILENT, "apply", fleet.policy(1, 3), group="many", wait=1)["counts"] == {"silent": 300}, "silent nodes")

memory = {name: int(next(line.split()[1] for line in open(f"/proc/{n.agent.process.pid}/status")
                         if line.startswith("VmHWM"))) for name, n in fleet.nodes.items()}
with open(f"{fleet.build}/zelagent", "rb") as program:
    is_sanitized = b"__asan_init" in program.read()  # and so keeps freed memory
check(is_sanitized or max(memory.values()) < 32 * 1024, f"memory of agents: {memory} kB")
fleet.stop()
print("every step as expected; memory of agents, kB:", memory)
