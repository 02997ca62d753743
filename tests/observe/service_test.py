"""What a running service shows of itself: status, captures and replay, log, metrics.

usage: service_test.py ZELD ZELCTL
"""

import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

from openmetrics import read_metrics
from sample import SOURCE

import zel

ZELD, ZELCTL = "", ""
EXAMPLES = f"{SOURCE}/examples"


def end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Service:
    """A zeld, and zelctl for it."""

    def __init__(self, folder, name, *options):
        self.folder, self.address = folder, f"unix:{folder}/{name}"
        self.process = subprocess.Popen([ZELD, "--listen", self.address, *options], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, preexec_fn=end_with_parent)
        if not self.process.stdout.readline().startswith("ready"):
            raise AssertionError(self.process.communicate())

    def run(self, *arguments, code=0, text=None):
        done = subprocess.run([ZELCTL, "--service", self.address, *arguments], input=text, capture_output=True,
                              text=True, timeout=60, check=False)
        if done.returncode != code:
            raise AssertionError(f"{arguments}: {done}")
        if "\x1b" in done.stdout + done.stderr:
            raise AssertionError(f"{arguments}: an escape character")
        return done.stdout

    def json(self, *arguments, **options):
        return [json.loads(line) for line in self.run("--json", *arguments, **options).splitlines()]

    def signal(self, number):
        self.process.send_signal(number)
        self.run("policy", "show")  # the loop has had its turn

    def stop(self):
        self.process.terminate()
        self.process.communicate(timeout=20)


def work(service):
    """Some requests of each kind, refused ones and a large one among them."""
    hostile = {"id": 9, "match_action_pair_group": [{"id": 1, "match_group": {"id": 1, "matches": [
        {"id": 1, "acl": "\x1b[31m\"}\n"}]}}]}
    many = {"id": 8, "if_group": [{"interface": i} for i in range(5000)]}
    for policy in (hostile, many):
        service.run("policy", "apply", "--replace", "-", text=json.dumps(policy))
    service.run("policy", "apply", "--replace", f"{EXAMPLES}/policies/branch_nat.json")
    service.run("--app", "3", "policy", "apply", "--replace", f"{EXAMPLES}/policies/web_redirect.json")
    hostile["op_mode"] = "disabled"
    service.run("policy", "apply", "-", text=json.dumps(hostile))
    service.run("traffic", f"{EXAMPLES}/packets.jsonl")
    service.run("policy", "delete", "99", code=1)
    service.run("stats")
    service.run("explain", "--policy", "20", "dip=192.0.2.80", "protocol=tcp")
    service.run("--json", "policy", "show")
    return len(KINDS)


# The kinds of work()'s requests.
KINDS = (["policy_update", "policy_update", "policy_list_update", "policy_update", "list", "list", "show", "change"]
         + ["traffic", "policy_delete", "stats_pull", "explain", "list", "list"] + 4 * ["show"])


def messages(path):
    return [(p.header["kind"], p.header["in_parts"], p.header["opcode"], p.payload) for p in zel.read_capture(path)]


class Observation(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="zel-observe-")
        self.addCleanup(shutil.rmtree, self.folder)

    def start(self, name, *options):
        service = Service(self.folder, name, *options)
        self.addCleanup(service.stop)
        return service

    def path(self, name):
        return os.path.join(self.folder, name)

    def test_what_is_replayed_is_captured_as_before(self):
        first = self.start("first", "--capture", self.path("a"))
        number = work(first)
        seen = first.json("monitor", "--last", "--decode")
        first.stop()
        second = self.start("second", "--capture", self.path("b"))
        self.assertEqual(second.json("--capture", self.path("c"), "replay", self.path("a")),
                         [{"requests": number, "equal": number, "differing": 0, "unanswered": 0, "skipped": 0}])
        second.run("capture", "--last", "-o", self.path("d"))
        second.run("replay", self.path("a"), code=5)  # it has policies by now
        second.run("policy", "apply", f"{EXAMPLES}/policies/lisp_overlay.json")  # from now on there
        # Answers about all policies differ: lists, statistics, traffic.
        self.assertEqual(second.json("replay", "--force", self.path("a"), code=1)[0]["differing"], 6)
        second.stop()
        expected = messages(self.path("a"))
        self.assertEqual(len(expected), 2 * number)
        self.assertEqual(messages(self.path("b"))[: 2 * number], expected)
        for name in "cd":
            self.assertEqual(messages(self.path(name)), expected, name)
        self.assertEqual(os.stat(self.path("a")).st_mode & 0o777, 0o600)
        self.assertEqual([one["kind"] for one in seen], KINDS)
        self.assertEqual((seen[3]["app"], seen[3]["policy_id"], seen[9]["error"]), (3, 10, "not found"))
        self.assertEqual(seen[0]["message"]["policy"]["id"], 9)

    def test_what_is_not_kept_is_reported(self):
        service = self.start("s", "--keep", "4000")
        work(service)
        seen = service.json("monitor", "--last")
        self.assertEqual(seen[-1]["kind"], "show")
        self.assertLess(len(seen), 8)
        service.run("policy", "apply", f"{EXAMPLES}/policies/web_redirect.json")
        service.run("policy", "apply", "-", text=json.dumps({"id": 1, "if_group": [{"interface": i} for i in range(100)]}))
        service.run("capture", "--last", "-o", self.path("cut"))
        self.assertTrue(any(p.is_cut for p in zel.read_capture(self.path("cut"))))
        empty = self.start("e", "--keep", "0")
        empty.run("monitor", "--last", code=1)
        self.assertEqual(empty.json("replay", self.path("cut"), code=1)[0]["skipped"], 1)

    def test_status_and_log(self):
        service = self.start("s", "--log", self.path("log"), "--dump", self.path("dump"), "--log-level", "debug")
        number = work(service)
        [status] = service.json("status")
        self.assertEqual((status["requests"], status["refusals"], status["policies"], status["clients"]), (number, 1, 5, 1))
        self.assertEqual([(one["app_type"], one["policies"]) for one in status["applications_now"]], [(0, 4), (3, 1)])
        self.assertEqual(status["clients_now"][0]["uid"], os.getuid())
        self.assertEqual(status["fingerprint"], zel.FINGERPRINT)
        self.assertIn(f"(wire {zel.FINGERPRINT})", service.run("status"))
        service.signal(signal.SIGUSR1)
        self.assertGreaterEqual(len(messages(self.path("dump"))), 2 * number)
        os.rename(self.path("log"), self.path("old"))
        service.signal(signal.SIGHUP)
        with open(self.path("old"), encoding="utf-8") as file:
            lines = file.read()
        form = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z zeld: %s: client \d+ \(pid \d+, uid " + str(os.getuid()) + r"\): %s"
        for level, text in (("info", "policy_update set, application 0, policy 8: "), ("debug", "list: 4 policies, "),
                            ("warn", "policy_delete remove, application 0, policy 99: refused, error 3: ")):
            self.assertTrue(re.search(form % (level, text), lines, re.M), text)
        with open(self.path("log"), encoding="utf-8") as file:
            self.assertIn("the log was opened anew", file.read())

    def test_metrics(self):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        service = self.start("s", "--metrics", f"127.0.0.1:{port}", "--metrics-pairs", "3")
        work(service)

        def get(accept, path="/metrics"):
            request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", headers={"Accept": accept})
            with urllib.request.urlopen(request, timeout=10) as response:
                return response.headers["Content-Type"], response.read().decode()

        kind, page = get("application/openmetrics-text; version=1.0.0")
        self.assertTrue(kind.startswith("application/openmetrics-text"))
        samples = read_metrics(page)
        self.assertEqual(samples["zel_requests_total", ("kind", "policy_update"), ("result", "done")], 3)
        self.assertEqual(samples["zel_requests_total", ("kind", "policy_delete"), ("result", "not_found")], 1)
        self.assertEqual(samples["zel_request_duration_seconds_count", ("kind", "show")], KINDS.count("show"))
        self.assertEqual(samples["zel_pairs",] - samples["zel_pairs_omitted",], 3)
        self.assertEqual(len([key for key in samples if key[0] == "zel_pair_packets_total"]), 3)
        kind, text = get("text/plain")
        self.assertTrue(kind.startswith("text/plain; version=0.0.4"))
        if shutil.which("promtool"):
            done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True, check=False)
            self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
        self.assertRaises(urllib.error.HTTPError, get, "*/*", "/")
        # Scrapers that say nothing, or do not read, hold nothing up.
        silent = [socket.create_connection(("127.0.0.1", port)) for _ in range(40)]
        for one in silent[:5]:
            one.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n" * 100)
        began = time.monotonic()
        for _ in range(5):
            service.run("status")
        self.assertLess(time.monotonic() - began, 5)
        for one in silent:
            one.close()
        self.assertEqual(read_metrics(get("application/openmetrics-text")[1])["zel_policies",], 5)


if __name__ == "__main__":
    ZELD, ZELCTL = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
