#!/usr/bin/env python3
"""The user time of a whole `zelctl policy apply`, client and service: apply.py BUILD RULES [OTHER-BUILD]

RULES is a file of rules, from which 8,000 are made with random addresses.  Beside it: reading the same file
with Python's json module, and the same with the programs of another build."""

import pathlib
import random
import resource
import statistics
import subprocess
import sys
import tempfile

NUM_RULES = 8000
ROUNDS = 15


def write_rules(source, path):
    lines = pathlib.Path(source).read_text().splitlines()
    dice = random.Random(1)
    rules = []
    for _ in range(NUM_RULES):
        words = dice.choice(lines).split("\t")
        words[0] = f"@{dice.randrange(1, 224)}.{dice.randrange(256)}.{dice.randrange(256)}.{dice.randrange(256)}/32"
        rules.append("\t".join(words))
    path.write_text("\n".join(rules) + "\n")


def user_ms(run):
    """The user time of processes that end during a call."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
    run()
    return 1000 * (resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before)


def quietly(*command):
    subprocess.run([str(word) for word in command], check=True, capture_output=True)


class Service:
    def __init__(self, build, address):
        self.process = subprocess.Popen([f"{build}/zeld", "--listen", address, "--log-level", "error"],
                                        stdout=subprocess.PIPE)
        self.process.stdout.readline()

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


def apply(build, folder, policy):
    """User milliseconds of client and service; starting and stopping the service does not count."""
    address = f"unix:{folder}/sock"
    idle = user_ms(Service(build, address).stop)
    service = Service(build, address)
    client = user_ms(lambda: quietly(f"{build}/zelctl", "--service", address, "policy", "apply", policy))
    return client, max(user_ms(service.stop) - idle, 0)


def main():
    builds = [sys.argv[1]] + sys.argv[3:4]
    with tempfile.TemporaryDirectory(prefix="zel-apply-") as name:
        folder = pathlib.Path(name)
        write_rules(sys.argv[2], folder / "rules")
        policies = []
        for number, build in enumerate(builds):
            policies.append(folder / f"{number}.json")
            policies[-1].write_bytes(subprocess.run([f"{build}/zelctl", "import", "classbench", folder / "rules"],
                                                    check=True, capture_output=True).stdout)
        read = f"import json; json.load(open({str(policies[0])!r}))"
        rounds = [[apply(build, folder, policy) for build, policy in zip(builds, policies)] +
                  [(user_ms(lambda: quietly(sys.executable, "-c", read)),
                    user_ms(lambda: quietly(sys.executable, "-c", "import json")))] for _ in range(ROUNDS)]
    print(f"user ms, median of {ROUNDS} rounds: {NUM_RULES} rules, {policies[0].name}")
    for number, build in enumerate(builds):
        client, service = (statistics.median(one[number][part] for one in rounds) for part in (0, 1))
        print(f"  policy apply, {'this build' if number == 0 else build:<24} client {client:6.1f}, service {service:6.1f}")
    print(f"  Python's json module reads the file {statistics.median(one[-1][0] - one[-1][1] for one in rounds):13.1f}")
    for number in range(1, len(builds)):
        print("  this build by the other one {:21.2f}".format(
            statistics.median(sum(one[0]) / sum(one[number]) for one in rounds)))


main()
