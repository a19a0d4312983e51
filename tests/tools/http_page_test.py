#!/usr/bin/python3
"""The page of gst-source in a browser: http_page_test.py HTTP_DEMO PAGE_FOLDER"""

import json
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

DEMO, PAGE = sys.argv[1], pathlib.Path(sys.argv[2])
PATIENCE = 60  # s

# A picture of one grey pixel, as a program that makes pictures would write it.
JPEG = bytes.fromhex(
    "ffd8ffe000104a46494600010100000100010000ffdb004300080606070605080707070909080a0c140d0c0b0b0c1912130f141d1a1f1e1d1a1c1c20"
    "242e2720222c231c1c2837292c30313434341f27393d38323c2e333432ffc0000b080001000101011100ffc4001f0000010501010101010100000000"
    "000000000102030405060708090a0bffc400b5100002010303020403050504040000017d01020300041105122131410613516107227114328191a108"
    "2342b1c11552d1f02433627282090a161718191a25262728292a3435363738393a434445464748494a535455565758595a636465666768696a737475"
    "767778797a838485868788898a92939495969798999aa2a3a4a5a6a7a8a9aab2b3b4b5b6b7b8b9bac2c3c4c5c6c7c8c9cad2d3d4d5d6d7d8d9dae1e2"
    "e3e4e5e6e7e8e9eaf1f2f3f4f5f6f7f8f9faffda0008010100003f00fbfca28a2803ffd9"
)


class Demo:
    """A server with a made-up fleet. It ends with its standard input, also when this process is killed."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen(
            [DEMO, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.address = self.process.stdout.readline().strip()
        self.url = f"http://{self.address}/"

    def say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def restarts(self):
        self.say("restarts")
        return self.process.stdout.readline().split()

    def end(self):
        self.process.stdin.close()
        self.process.wait(PATIENCE)
        self.process.stdout.close()


def browser():
    options = Options()
    # Chromium's sandbox refuses to run as root, and containers have little /dev/shm.
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
        options.add_argument(flag)
    options.add_argument("--disable-background-networking")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        picture = pathlib.Path(cls.folder.name, "picture.jpg")
        picture.write_bytes(JPEG)
        reader = pathlib.Path(cls.folder.name, "reader")
        reader.write_text(f"#!/bin/sh\ncase $2 in /gate-south) echo 'no key frame yet' >&2; exit 1;; esac\ncat {picture}\n")
        reader.chmod(0o755)
        cls.reader = str(reader)
        cls.driver = browser()
        cls.addClassCleanup(cls.driver.quit)

    def open(self, demo, path=""):
        self.demo = demo
        self.addCleanup(demo.end)
        self.driver.get("about:blank")
        self.driver.get_log("browser")
        self.driver.get_log("performance")
        self.size(1440, 1000)
        self.driver.get(demo.url + path)

    def size(self, width, height):
        self.driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride", {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False}
        )

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        """Of an element that the page may be replacing; empty when it is not there."""
        return self.driver.execute_script(
            "const e = document.querySelector(arguments[0]); return e && e.checkVisibility() ? e.innerText : ''", selector
        )

    def wait(self, what, condition):
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            value = condition()
            if value:
                return value
            time.sleep(0.05)
        self.fail(f"never: {what}; the page says:\n{self.text('body')}")

    def names(self):
        return self.driver.execute_script(
            "return [...document.querySelectorAll('.card')].filter(c => !c.hidden).map(c => c.dataset.name)"
        )

    def card(self, name, part):
        return self.text(f".card[data-name='{name}'] {part}")

    def check_quiet(self):
        """No complaint of the browser, and no request that leaves the origin."""
        complaints = [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
        self.assertEqual(complaints, [])
        asked = set()
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                asked.add(message["params"]["request"]["url"])
        inside = (self.demo.url, f"blob:{self.demo.url}", "about:blank")
        self.assertEqual([url for url in asked if not url.startswith(inside)], [])
        self.assertIn(self.demo.url + "api/sources", asked)

    def test_overview(self):
        self.open(Demo("--reader", self.reader))
        self.wait("all sources", lambda: len(self.names()) == 12)
        self.assertEqual(self.text("#count-live"), "8")
        self.assertEqual(self.text("#count-waiting"), "2")
        self.assertEqual(self.text("#count-failing"), "2")
        self.assertRegex(self.text("#vital-rate"), r"^[0-9.]+ Mb/s$")
        self.wait("the load", lambda: self.text("#vital-cpu").endswith(" %"))
        self.assertEqual(self.text("#vital-memory"), "186 MB")
        self.assertEqual(self.card("gate-north", ".badge"), "Live")
        self.assertIn("37 lost", self.card("gate-north", ".readers"))
        self.assertIn("1920\u00d71080 25 fps", self.card("gate-north", ".media"))
        self.assertEqual(self.card("parking-p2", ".badge"), "Failing")
        self.assertIn("Not found (404)", self.card("parking-p2", ".problem"))
        self.assertIn("next attempt in", self.card("parking-p2", ".problem"))
        self.assertEqual(self.card("lobby", ".badge"), "Silent")
        # Ten minutes of history, and a picture.
        line = ".card[data-name='event-stream'] .rate .line"
        self.wait("a curve", lambda: len(self.one(line).get_attribute("d") or "") > 500)
        self.wait("a picture", lambda: self.driver.execute_script(
            "return document.querySelector(\".card[data-name='event-stream'] img\").naturalWidth") == 1)
        self.wait("a reason", lambda: self.card("gate-south", ".no-picture") == "No picture: no key frame yet")
        # It goes on by itself.
        rate = self.text("#vital-rate")
        self.wait("other numbers", lambda: self.text("#vital-rate") != rate)
        self.check_quiet()

    def test_filter_and_sort_are_in_the_address(self):
        self.open(Demo())
        self.wait("all sources", lambda: len(self.names()) == 12)
        self.one("#filter").send_keys("srt studio")
        self.assertEqual(self.wait("two", lambda: self.names() if len(self.names()) == 2 else None), ["studio-a", "studio-b"])
        self.assertIn("q=srt+studio", self.driver.current_url)
        self.one("#filter").send_keys(Keys.CONTROL, "a")
        self.one("#filter").send_keys("nothing like it")
        self.wait("none", lambda: "No source matches" in self.text("#nothing"))
        self.one("#filter").send_keys(Keys.CONTROL, "a", Keys.DELETE)
        self.one(".chip.failing").click()
        self.assertEqual(self.names(), ["parking-p2", "studio-b"])
        self.assertEqual(self.one(".chip.failing").get_attribute("aria-pressed"), "true")
        self.one(".chip.failing").click()
        Select(self.one("#sort")).select_by_value("rebuilds")
        self.assertEqual(self.names()[:3], ["parking-p2", "event-stream", "studio-b"])
        Select(self.one("#sort")).select_by_value("state")
        self.assertEqual(set(self.names()[:2]), {"parking-p2", "studio-b"})
        Select(self.one("#sort")).select_by_value("rate")
        self.assertEqual(self.names()[0], "studio-a")
        self.one(".chip.live").click()
        address = self.driver.current_url
        self.driver.get("about:blank")
        self.driver.get(address)
        self.wait("the same view", lambda: len(self.names()) == 8 and self.names()[0] == "studio-a")
        self.assertEqual(Select(self.one("#sort")).first_selected_option.text, "Bit rate")
        self.check_quiet()

    def test_a_source_and_its_restart(self):
        self.open(Demo("--reader", self.reader), "#/?sort=rebuilds")
        self.wait("the card", lambda: "parking-p2" in self.names())
        self.one(".card[data-name='parking-p2'] .cover").send_keys(Keys.ENTER)
        self.wait("its page", lambda: self.text("#detail-title") == "parking-p2")
        self.assertTrue(self.driver.current_url.endswith("#/source/parking-p2"))
        self.assertTrue(self.driver.title.startswith("parking-p2"))
        self.wait("the log", lambda: "reconnect in 3 s" in self.text(".log"))
        self.assertIn("nothing yet", self.text(".pairs.video"))
        self.assertIn("Nobody reads", self.text(".no-readers"))
        # Asked first, and not done when the answer is no.
        self.one(".restart").click()
        self.assertEqual(self.text("#confirm-title"), "Restart parking-p2?")
        self.one("#confirm button[value=cancel]").click()
        self.one(".restart").click()
        self.one("#confirm button[value=restart]").click()
        self.wait("a word of it", lambda: self.text("#toast") == "parking-p2 restarts")
        self.assertEqual(self.demo.restarts(), ["parking-p2"])
        # Back keeps the view.
        self.one(".back").click()
        self.wait("the overview", lambda: len(self.names()) == 12)
        self.assertTrue(self.driver.current_url.endswith("#/?sort=rebuilds"))
        self.driver.get(self.demo.url + "#/source/gate-north")
        self.wait("readers", lambda: "analytics" in self.text("tbody"))
        self.assertIn("1920 \u00d7 1080 progressive", self.text(".pairs.video"))
        self.wait("curves", lambda: len(self.one("[data-plot=rate] .line").get_attribute("d") or "") > 500)
        self.wait("a picture", lambda: self.driver.execute_script(
            "return document.querySelector('#detail img').naturalWidth") == 1)
        self.driver.get(self.demo.url + "#/source/no%20such%20one")
        self.wait("a word of it", lambda: "There is no source" in self.text("#detail"))
        self.check_quiet()

    def test_a_token_is_asked_for(self):
        self.open(Demo("--token", "let me in"))
        self.wait("the form", lambda: "asks for a token" in self.text("#login"))
        self.one("#token").send_keys("let me out", Keys.ENTER)
        self.wait("no", lambda: "does not take this token" in self.text("#login-error"))
        self.one("#token").clear()
        self.one("#token").send_keys("let me in", Keys.ENTER)
        self.wait("all sources", lambda: len(self.names()) == 12)
        self.assertFalse(self.one("#login").is_displayed())
        self.driver.refresh()
        self.wait("all sources again", lambda: len(self.names()) == 12)
        self.driver.execute_script("sessionStorage.clear()")

    def test_the_service_goes_away_and_comes_back(self):
        demo = Demo()
        self.driver.get("about:blank")
        self.driver.get(demo.url)
        self.wait("all sources", lambda: len(self.names()) == 12)
        # No sample: the service answers, but its numbers are old.
        demo.say("stall")
        self.wait("old numbers", lambda: "has looked at no source for" in self.text("#banner"))
        demo.say("go")
        self.wait("new ones", lambda: self.text("#banner") == "")
        demo.end()
        self.wait("silence", lambda: self.text("#banner").startswith("No answer since "))
        self.assertEqual(len(self.names()), 12, "what was known stays")
        again = Demo("--address", demo.address)
        self.addCleanup(again.end)
        self.wait("an answer", lambda: self.text("#banner") == "")

    def test_every_width_has_room(self):
        self.open(Demo("--reader", self.reader))
        self.wait("all sources", lambda: len(self.names()) == 12)
        for width in (390, 820, 1440):
            self.size(width, 900)
            for path in ("#/", "#/source/gate-north", "#/source/parking-p2"):
                self.driver.get(self.demo.url + path)
                self.wait("a source", lambda: "gate-north" in self.text("main") or "parking-p2" in self.text("main"))
                wide = self.driver.execute_script("return document.documentElement.scrollWidth")
                self.assertLessEqual(wide, width, f"{path} at {width} scrolls sideways")

    def test_names_of_everything_that_can_be_used(self):
        self.open(Demo())
        self.wait("all sources", lambda: len(self.names()) == 12)
        for path in ("#/", "#/source/gate-north"):
            self.driver.get(self.demo.url + path)
            self.wait("content", lambda: "gate-north" in self.text("main"))
            usable = self.driver.find_elements(By.CSS_SELECTOR, "a, button, input, select, [tabindex='0']")
            elements = [element for element in usable if element.is_displayed()]
            self.assertGreater(len(elements), 3)
            for element in elements:
                self.assertNotEqual(element.accessible_name.strip(), "", element.get_attribute("outerHTML")[:200])
        # The keyboard alone reaches the first source.
        self.driver.get(self.demo.url + "#/")
        self.wait("all sources", lambda: len(self.names()) == 12)
        reached = []
        for _ in range(20):
            self.driver.switch_to.active_element.send_keys(Keys.TAB)
            reached.append(self.driver.switch_to.active_element.accessible_name)
        self.assertTrue(any(name.startswith("event-stream, Live") for name in reached), reached)

    def test_three_hundred_sources(self):
        self.open(Demo("--sources", "300"))
        self.wait("all sources", lambda: len(self.names()) == 300)
        # Only what is in view is drawn and asked for.
        self.wait("curves", lambda: len(self.one(".card .rate .line").get_attribute("d") or "") > 100)
        drawn = "return [...document.querySelectorAll('.card .rate .line')].filter(l => l.getAttribute('d')).length"
        self.assertLess(self.driver.execute_script(drawn), 60)
        longest = self.driver.execute_async_script("""
            const done = arguments[0];
            let longest = 0;
            new PerformanceObserver(list => list.getEntries().forEach(e => longest = Math.max(longest, e.duration)))
                .observe({entryTypes: ['longtask']});
            let steps = 0;
            const step = () => {
                scrollBy(0, 400);
                ++steps < 120 ? requestAnimationFrame(step) : setTimeout(() => done(longest), 3000);
            };
            step();""")
        print(f"300 sources: the longest task of the page took {longest:.0f} ms", file=sys.stderr)
        self.assertLess(longest, 5000)
        self.check_quiet()

    def test_the_files_are_those_of_the_folder(self):
        demo = Demo()
        self.addCleanup(demo.end)
        for path, file in (("", "page.html"), ("page.css", "page.css"), ("page.js", "page.js"), ("icon.svg", "icon.svg")):
            with urllib.request.urlopen(demo.url + path) as answer:
                self.assertEqual(answer.read(), (PAGE / file).read_bytes(), file)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
