#!/usr/bin/env python3
"""How long after the acknowledgement of a revision the last node reports it: measure.py BUILD [WHICH...]

Three servers, simulated nodes in two processes, and twenty real agents with services.  The
simulated nodes verify each object once for their process."""

import json
import os
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/fleet"))
from fleet import Fleet, Process, wait_for

AGENTS = 20
#        name        nodes  rules  rate revisions
CASES = {"rules":   (1000, 1000, 1, 20),
         "rate":    (1000, 1, 20, 200),
         "nodes":   (5000, 1, 2, 20),
         "both":    (5000, 1000, 0.2, 4),
         "large":   (100, 33000, 0.2, 4),
         "10":      (10, 1, 2, 20),
         "100":     (100, 1, 2, 20),
         "300":     (300, 1, 2, 20),
         "1000":    (1000, 1, 2, 20),
         "3000":    (3000, 1, 2, 20)}


def measure(build, nodes, rules, rate, revisions, agents=AGENTS):
    fleet = Fleet(build, servers=3)
    try:
        fleet.init()
        simulators = []
        simulated = nodes - agents
        for first, count in ((0, simulated // 2), (simulated // 2, simulated - simulated // 2)):
            if count:
                simulators.append(Process([f"{build}/tests/fleet/node_simulator", ",".join(map(str, fleet.ports)),
                                           str(count), str(first), "all", "once"], f"{fleet.folder}/simulator.log",
                                          ready="ready"))
        for number in range(agents):
            fleet.add_node(f"real{number}")
        wait_for(lambda: len(fleet.zelctl("nodes")[1]) >= nodes, 90, "all nodes")
        done = subprocess.run([f"{build}/bench/fleet/fleet_writer", fleet.address, "all", str(nodes), str(rules), str(rate),
                               str(revisions)], capture_output=True, text=True, timeout=300)
        assert done.returncode == 0, done.stderr
        result = json.loads(done.stdout)
        memory = [int(next(line.split()[1] for line in open(f"/proc/{node.agent.process.pid}/status")
                           if line.startswith("VmHWM"))) for node in fleet.nodes.values()] or [0]
        result["agent_mb"] = round(max(memory) / 1024, 1)
        for simulator in simulators:
            simulator.kill()
        return result
    finally:
        fleet.stop()


def main():
    build, which = sys.argv[1], sys.argv[2:] or list(CASES)
    fleet = Fleet(build)
    print(subprocess.run([f"{build}/bench/fleet/request_latency", f"127.0.0.1:{fleet.ports[0]}"], check=True,
                         capture_output=True, text=True).stdout, end="")
    fleet.stop()
    print(f"{'case':>6} {'nodes':>6} {'rules':>6} {'rate/s':>7} {'p50 ms':>8} {'p99 ms':>8} {'max ms':>8} {'complete':>9} "
          f"{'agent MB':>9} {'load':>5}")
    results = []
    for name in which:
        nodes, rules, rate, revisions = CASES[name]
        result = measure(build, nodes, rules, rate, revisions, min(AGENTS, nodes))
        results.append({"case": name, "nodes": nodes, "rules": rules, "rate": rate, **result})
        print(f"{name:>6} {nodes:>6} {rules:>6} {rate:>7} {result['p50']:>8.0f} {result['p99']:>8.0f} {result['max']:>8.0f} "
              f"{result['complete']:>4}/{result['revisions']:<4} {result['agent_mb']:>9} {os.getloadavg()[0]:>5.1f}", flush=True)
    (pathlib.Path(build).parent / "fleet.json").write_text(json.dumps(results, indent=1))


main()
