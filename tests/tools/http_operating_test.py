#!/usr/bin/python3
"""The alerts and the dashboard: http_operating_test.py OPERATING_FOLDER RULES_TEST METRICS_GUIDE HTTP_DEMO"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import urllib.request

OPERATING, RULES_TEST, GUIDE = (pathlib.Path(path) for path in sys.argv[1:4])
DEMO = sys.argv[4]
RULES = OPERATING / "prometheus-rules.yml"


def promtool(*arguments):
    done = subprocess.run(["promtool", *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def families():
    """Name, type of each family that a run shows."""
    demo = subprocess.Popen([DEMO], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        address = demo.stdout.readline().strip()
        with urllib.request.urlopen(f"http://{address}/metrics") as answer:
            return dict(re.findall(r"^# TYPE (\S+) (\S+)$", answer.read().decode(), re.MULTILINE))
    finally:
        demo.stdin.close()
        demo.wait()
        demo.stdout.close()


def used(text):
    names = set(re.findall(r"\b(?:gst_source|process)_[a-z_]+", text))
    return {re.sub(r"_(bucket|sum|count)$", "", name) if name.endswith(("_bucket", "_sum", "_count")) else name for name in names}


class OperatingTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.families = families()

    def test_rules_are_rules(self):
        status, said = promtool("check", "rules", str(RULES))
        self.assertEqual(status, 0, said)
        self.assertIn("7 rules found", said)

    def test_every_alert_comes_and_goes(self):
        status, said = promtool("test", "rules", str(RULES_TEST))
        self.assertEqual(status, 0, said)
        text = RULES_TEST.read_text()
        for alert in re.findall(r"alert: (\w+)", RULES.read_text()):
            self.assertIn(f"alertname: {alert}", text)

    def test_metrics_that_are_asked_for_exist(self):
        self.assertLessEqual(used(RULES.read_text()), set(self.families))
        self.assertLessEqual(used((OPERATING / "grafana-dashboard.json").read_text()), set(self.families))

    def test_the_guide_lists_every_family_with_its_type(self):
        listed = dict(re.findall(r"^\| `(\w+)` \| (gauge|counter|histogram) \|", GUIDE.read_text(), re.MULTILINE))
        self.assertEqual(listed, self.families)

    def test_the_dashboard_is_one(self):
        board = json.loads((OPERATING / "grafana-dashboard.json").read_text())
        ids = [panel["id"] for panel in board["panels"]]
        self.assertEqual(len(ids), len(set(ids)))
        self.assertEqual([v["name"] for v in board["templating"]["list"]], ["datasource", "instance", "source"])
        for panel in board["panels"]:
            place = panel["gridPos"]
            self.assertLessEqual(place["x"] + place["w"], 24, panel["title"])
            for target in panel["targets"]:
                # What Grafana puts in, so that Prometheus can say whether the rest is a query.
                query = target["expr"].replace("$instance", ".*").replace("$source", ".*")
                with tempfile.NamedTemporaryFile("w", suffix=".yml") as rules:
                    json.dump({"groups": [{"name": "board", "rules": [{"record": "a:b", "expr": query}]}]}, rules)
                    rules.flush()
                    status, said = promtool("check", "rules", rules.name)
                self.assertEqual(status, 0, f"{query}: {said}")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
