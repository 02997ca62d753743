"""The demonstration behind scripts/demo-fleet."""

import subprocess
import sys
import time

from fleet import Fleet, wait_for

started = time.monotonic()
build = sys.argv[1]
fleet = Fleet(build, servers=3)


def say(text):
    print(f"\n\033[1m{text}\033[0m", flush=True)


def zelctl(*arguments, group="all"):
    print(f"$ zelctl fleet --group {group}", *[str(a).replace(fleet.folder + "/", "") for a in arguments], flush=True)
    return subprocess.run([f"{build}/zelctl", "fleet", "--servers", fleet.address, "--group", group, "--author",
                           "demo", *arguments]).returncode


def require(condition, what):
    if not condition:
        sys.exit(f"demo-fleet: {what}")


say("1. Three servers form a cluster; what a fleet needs is made on them, three copies of everything")
fleet.init()
require(zelctl("init", "--replicas", "3") == 0, "init")

say("2. Eight nodes, each an agent beside its service; four of them are in the group \"edge\", too")
for number in range(8):
    small = ["--max-message", "4096"] if number == 3 else []
    fleet.add_node(f"node{number}", groups=("all", "edge") if number >= 4 else ("all",), service_options=small,
                   keeps=number < 4)
fleet.await_nodes(8)
print(", ".join(fleet.nodes))

say("3. A policy for all nodes: zelctl waits until each has said what became of it")
require(zelctl("apply", "--message", "first policy", fleet.policy(1, 7)) == 0, "apply")

say("4. Two more, one of them large: node3 refuses the revision, so it takes neither, and says why")
require(zelctl("apply", "--message", "too large for node3", fleet.policy(2, 8), fleet.policy(3, 8, pairs=100)) == 10,
        "one refusal")
time.sleep(0.5)  # what the servers keep of statuses is a little older than what they pass on
zelctl("nodes", "--behind")

say("5. Undo is a new revision with the policies of an older one")
require(zelctl("undo") == 0, "undo")

say("6. node5 is killed (kill -9 of agent and service); the group \"edge\" gets a policy meanwhile")
fleet.nodes["node5"].agent.kill()
fleet.nodes["node5"].service.kill()
require(zelctl("--wait", "3", "apply", fleet.policy(4, 9), group="edge") == 12, "silence is not success")

say("7. node5 is back, and catches up by itself")
fleet.nodes["node5"].service.start()
fleet.nodes["node5"].agent.start()
wait_for(lambda: fleet.nodes["node5"].policies() == {1: 7, 4: 9}, what="node5 at the newest revisions")
time.sleep(0.5)
require(zelctl("status", group="edge") == 0, "all at the newest revision")

say("8. One of the three servers is killed (kill -9), and a revision is written all the same")
fleet.servers[0].kill()
begin = time.monotonic()
require(zelctl("apply", "--message", "with two servers", fleet.policy(5, 1)) == 0, "apply with two servers")
print(f"after {time.monotonic() - begin:.1f} s")

say("9. Who changed what, and when")
zelctl("log")
fleet.stop()
say(f"Done in {time.monotonic() - started:.0f} s; nothing is left running.")
