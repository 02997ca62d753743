#!/usr/bin/env python3
"""kill -9 of servers, agents and services while revisions are written: faults.py BUILD [ROUNDS [SEED]]

A round kills one server, or all three, and agents and services at random moments.  Then every
acknowledged revision must be in the log, in order and once, every node must end at the newest
revision with exactly its policies, and the writer must have been back within 10 s."""

import random
import sys
import threading
import time

from fleet import Fleet, wait_for

build = sys.argv[1]
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 4
seed = int(sys.argv[3]) if len(sys.argv) > 3 else 1
rng = random.Random(seed)
fleet = Fleet(build, servers=3)
fleet.init()
for number in range(4):
    fleet.add_node(f"n{number}", groups=("all", "edge") if number % 2 else ("all",), keeps=number < 2)
fleet.await_nodes(4)
kills = 0  # by SIGKILL


class Writer(threading.Thread):
    """Writes revisions one after the other.  Keeps what was acknowledged, and the longest gap."""

    def __init__(self, attempts):
        super().__init__(daemon=True)
        self.acknowledged, self.attempts, self.longest_gap = {}, attempts, 0.0
        self.stopping = False
        self.failure = None

    def run(self):
        last = time.monotonic()
        while not self.stopping:
            self.attempts += 1
            word = f"write {self.attempts}"
            code, output = fleet.zelctl("apply", "--message", word, fleet.policy(1, self.attempts % 60000 + 1), wait=0)
            if isinstance(output, dict) and "revision" in output:  # committed, whatever the nodes have made of it
                if output["revision"] in self.acknowledged:
                    self.failure = f"revision {output['revision']} was acknowledged twice"
                self.acknowledged[output["revision"]] = word
                now = time.monotonic()
                self.longest_gap = max(self.longest_gap, now - last)
                last = now
            time.sleep(0.05)


def check_log(writer):
    """The log keeps 64 revisions."""
    code, log = wait_for(lambda: (lambda r: r[0] == 0 and r)(fleet.zelctl("log")), 30, "a log")
    kept = {entry["revision"]: entry["comment"] for entry in log}
    assert sorted(kept) == list(range(min(kept), max(kept) + 1)), f"revisions are missing: {sorted(kept)}"
    assert len(set(kept.values())) == len(kept), f"a revision was written twice: {kept}"
    for revision, word in writer.acknowledged.items():
        assert revision < min(kept) or kept.get(revision) == word, f"revision {revision}, {word}, is lost: {kept}"
    return max(kept), kept[max(kept)]


def disturb_nodes(until):
    global kills
    while time.monotonic() < until:
        node = rng.choice(list(fleet.nodes.values()))
        rng.choice([node.agent, node.service]).restart()
        kills += 1
        time.sleep(rng.random() * 0.3)


gap, attempts = 0.0, 0
DOWN = 1.5  # seconds
for number in range(rounds):
    writer = Writer(attempts)
    writer.start()
    time.sleep(0.5)
    victims = [fleet.servers[number % 3]] if number % 4 != 1 else fleet.servers
    for server in victims:
        server.kill()
        kills += 1
    disturb_nodes(time.monotonic() + DOWN)
    down = DOWN if len(victims) == 3 else 0.0
    for server in victims:
        server.start()
    started = time.monotonic()
    disturb_nodes(started + 0.5)
    before = len(writer.acknowledged)
    wait_for(lambda: len(writer.acknowledged) > before + 2, 20, "the writer back")
    writer.stopping = True
    writer.join()
    tried, attempts = writer.attempts - attempts, writer.attempts
    assert writer.failure is None, writer.failure
    assert writer.longest_gap - down < 10, f"the writer was away for {writer.longest_gap:.1f} s"
    gap = max(gap, writer.longest_gap)
    newest, word = check_log(writer)
    vrf = int(word.split()[1]) % 60000 + 1
    wait_for(lambda: all(node.policies() == {1: vrf} for node in fleet.nodes.values()), 60,
             f"revision {newest} with VRF {vrf} at every node")
    wait_for(lambda: fleet.zelctl("status")[0] == 0, 60, "every node applied")
    print(f"round {number + 1}: {len(writer.acknowledged)} revisions acknowledged in {tried} attempts, "
          f"longest gap {writer.longest_gap:.1f} s", flush=True)
fleet.stop()
print(f"seed {seed}: {kills} kills, longest time without a write {gap:.1f} s, nothing lost")
