#!/usr/bin/python3
"""The guide of operation and what belongs to it: operating_guide_test.py DOCS GST_SOURCE"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import yaml

DOCS, TOOL = pathlib.Path(sys.argv[1]), sys.argv[2]
GUIDE = (DOCS / "operating.md").read_text()


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```", GUIDE, re.MULTILINE | re.DOTALL)


class Kubernetes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.objects = {entry["kind"]: entry for entry in yaml.safe_load_all((DOCS / "operating/kubernetes.yaml").read_text())}
        cls.pod = cls.objects["StatefulSet"]["spec"]["template"]["spec"]
        cls.containers = {container["name"]: container for container in cls.pod["containers"]}

    def test_references_lead_somewhere(self):
        volumes = {volume["name"] for volume in self.pod["volumes"]}
        for container in self.containers.values():
            for mount in container["volumeMounts"]:
                self.assertIn(mount["name"], volumes)
        for volume in self.pod["volumes"]:
            if "configMap" in volume:
                self.assertEqual(volume["configMap"]["name"], self.objects["ConfigMap"]["metadata"]["name"])
        labels = self.objects["StatefulSet"]["spec"]["template"]["metadata"]["labels"]
        self.assertEqual(self.objects["StatefulSet"]["spec"]["selector"]["matchLabels"], labels)
        self.assertEqual(self.objects["Service"]["spec"]["selector"], labels)
        self.assertEqual(self.objects["StatefulSet"]["spec"]["serviceName"], self.objects["Service"]["metadata"]["name"])

    def test_both_containers_have_the_same_shared_memory(self):
        shared = [volume["name"] for volume in self.pod["volumes"] if volume.get("emptyDir", {}).get("medium") == "Memory"]
        for container in self.containers.values():
            self.assertIn({"name": shared[0], "mountPath": "/dev/shm"}, container["volumeMounts"])
        self.assertTrue(self.pod["shareProcessNamespace"])

    def test_probes_are_paths_of_the_service(self):
        guide = (DOCS / "http.md").read_text()
        host = self.containers["gst-source"]
        ports = {port["name"] for port in host["ports"]}
        probes = {name: host[name]["httpGet"] for name in ("startupProbe", "readinessProbe", "livenessProbe")}
        self.assertEqual({name: probe["path"] for name, probe in probes.items()},
                         {"startupProbe": "/readyz", "readinessProbe": "/readyz", "livenessProbe": "/healthz"})
        for probe in probes.values():
            self.assertIn(f"| `{probe['path']}` |", guide)
            self.assertIn(probe["port"], ports)

    def test_the_file_of_sources_is_good(self):
        text = self.objects["ConfigMap"]["data"]["gst-source.toml"]
        with tempfile.TemporaryDirectory() as folder:
            secrets = pathlib.Path(folder, "secrets")
            secrets.mkdir()
            for name in ("http-token", "front-door"):
                (secrets / name).write_text("a long secret\n")
                (secrets / name).chmod(0o600)
            file = pathlib.Path(folder, "sources.toml")
            file.write_text(text.replace("/etc/gst-source-secrets", str(secrets)))
            done = subprocess.run([TOOL, "check", file], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual((done.returncode, done.stdout), (0, f"{file}: good, 1 source\n"))


class Guide(unittest.TestCase):
    def test_the_configuration_of_prometheus_is_one(self):
        text, = [block for block in blocks("yaml") if "scrape_configs" in block]
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "prometheus.yml").write_text(text)
            pathlib.Path(folder, "prometheus-rules.yml").write_text((DOCS / "operating/prometheus-rules.yml").read_text())
            done = subprocess.run(["promtool", "check", "config", f"{folder}/prometheus.yml"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_seconds_that_a_ring_holds(self):
        rows = re.findall(r"^\| (\d+)M(?: \(default\))? \| (.*) \|$", GUIDE, re.MULTILINE)
        self.assertEqual([int(size) for size, _ in rows], [1, 2, 4, 8, 16, 32])
        for size, cells in rows:
            for rate, cell in zip((1, 2, 4, 8), cells.split(" | ")):
                # 1,024 frames at most.
                self.assertEqual(cell, f"{min(int(size) * 8 * 2**20 / (rate * 1e6), 1024 / 25):.0f} s", f"{size}M at {rate} Mb/s")

    def test_commands_of_the_tools_exist(self):
        reader = pathlib.Path(TOOL).parent.parent / "gst-source-read/gst-source-read"
        found = set()
        # Lines of commands, and code within the text.
        for name, rest in re.findall(r"(?:^    |`)(gst-source(?:-read)?) ([^`\n]+)", GUIDE, re.MULTILINE):
            words = rest.split("#")[0].split()
            tool = [reader, words[0]] if name == "gst-source-read" else [TOOL]
            said = subprocess.run([*tool, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout
            for word in words:
                if word.startswith("--"):
                    self.assertIn(word, said, rest)
            found.add((name, words[0]))
        self.assertEqual(found, {("gst-source", "check"), ("gst-source", "--config"), ("gst-source-read", "tracks")})

    def test_image_is_made_from_the_packages(self):
        """The tools and what they cannot do without, each one a package that is built; the rest is apt's to find."""
        image = (DOCS.parent / "packaging/container/Containerfile").read_text()
        control = (DOCS.parent / "packaging/debian/control").read_text()
        installed = re.findall(r"\./([a-z0-9.-]+)_\*_", image)
        self.assertEqual(sorted(installed), ["gst-source", "gstreamer1.0-shb", "libgst-source1", "libshb2"])
        self.assertLessEqual(set(installed), set(re.findall(r"^Package: (.*)$", control, re.MULTILINE)))
        number, = re.findall(r"--uid (\d+)", image)
        self.assertIn(f"The user of the image has the number {number}.", GUIDE)
        self.assertIn("packaging/container/Containerfile", GUIDE)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
