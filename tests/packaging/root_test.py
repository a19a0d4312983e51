#!/usr/bin/env python3
"""What the Debian packages do on a system that has nothing else: root_test.py RELEASE PACKAGES ROOT

RELEASE is bookworm or trixie, PACKAGES the directory that scripts/package has filled, ROOT an empty root of that release, which
is used up. In it, apt alone resolves what the packages depend on, from the mirror and from PACKAGES:

- the version before is installed, and this one upgrades it
- the tests of the packages run: a real stream, hosts by pkg-config and CMake, the Python package
- the program of the README compiles and plays
- systemd starts, and the unit in it
- purged, nothing is left

Needs root. The version before is made from the packages themselves as long as there is none: the same files, an earlier number.
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

release, packages, root = sys.argv[1], Path(sys.argv[2]).resolve(), Path(sys.argv[3]).resolve()
repository = Path(__file__).resolve().parent.parent.parent
OURS = ["libgst-source1", "libgst-source-dev", "libshb2", "libshb-dev", "gstreamer1.0-shb", "gst-source", "python3-gst-source"]
TOOLS = ["build-essential", "cmake", "pkg-config", "ffmpeg", "procps", "curl", "systemd", "dbus", "gstreamer1.0-libav"]
# Where a purged package may leave traces that are not its own.
NOT_LOOKED_AT = re.compile(r"/(proc|sys|dev|run|tmp|packages|root)/|/var/(cache|log|tmp)/|/var/lib/(apt|dpkg|systemd|dbus)/|/etc/ld\.so\.cache"
                           r"|/usr/lib/python3/.*__pycache__|/etc/[^/]*-$|/usr/share/(mime|info|glib-2.0)/|/var/lib/ucf/")  # fmt: skip
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LANG": "C.UTF-8",
               "DEBIAN_FRONTEND": "noninteractive", "TERM": "dumb"}  # fmt: skip
for proxy in ("http_proxy", "https_proxy"):
    if proxy in os.environ:
        ENVIRONMENT[proxy] = os.environ[proxy]

# The mounts are in a namespace of their own, and go with its processes. unshare ends them with itself.
ENTER = r"""
root=$1
shift
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs sysfs "$root/sys"
mount --rbind /dev "$root/dev"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mkdir -p "$root/packages"
cd "$root"
mkdir -p mnt
pivot_root . mnt
umount --lazy /mnt
cd /root
exec "$@"
"""


def say(text):
    print(f"[{release}] {text}", flush=True)


def inside(*command, check=True, text=None, quiet=False):
    """Runs a command in the root, as its first process, with the network of this machine."""
    run = subprocess.run(["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--ipc", "--uts", "--fork", "--kill-child",
                          "bash", "-euc", ENTER, "enter", str(root), *command], env=ENVIRONMENT, input=text,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip
    if check and run.returncode != 0:
        sys.exit(f"[{release}] {' '.join(command)} ended with {run.returncode}:\n{run.stdout}")
    if not quiet and not check:
        print(run.stdout)
    return run


def apt(*arguments):
    return inside("apt-get", "-qq", "-y", "-o", "Dpkg::Use-Pty=0", *arguments)


def offer(folder):
    """Makes the packages of a folder, which stands in the root at /packages, the newest that apt knows."""
    shutil.rmtree(root / "packages", ignore_errors=True)
    shutil.copytree(folder, root / "packages")
    index = subprocess.run(["dpkg-scanpackages", "--multiversion", "."], cwd=root / "packages", stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, check=True)  # fmt: skip
    (root / "packages" / "Packages").write_bytes(index.stdout)
    (root / "etc" / "apt" / "sources.list.d" / "packages.list").write_text("deb [trusted=yes] file:/packages ./\n")
    apt("update")


def debs():
    own = subprocess.run(["dpkg", "--print-architecture"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
    found = sorted(path for path in packages.glob(f"*_{own}.deb") if "-dbgsym_" not in path.name)
    names = {path.name.split("_")[0] for path in found}
    assert names == set(OURS), f"{packages} has {sorted(names)}"
    return found


def earlier(into):
    """The same packages with an earlier number."""
    into.mkdir(parents=True)
    for deb in debs():
        tree = into / "tree"
        subprocess.run(["dpkg-deb", "--raw-extract", deb, tree], check=True)
        control = tree / "DEBIAN" / "control"
        control.write_text(re.sub(r"\b1\.0\.0\b", "0.9.0", control.read_text()))
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", tree, into], stdout=subprocess.DEVNULL, check=True)
        shutil.rmtree(tree)


def files():
    """Every path of the root that a package may leave behind."""
    found = set()
    for folder, names, others in os.walk(root):
        for name in names + others:
            path = "/" + str((Path(folder) / name).relative_to(root))
            if not NOT_LOOKED_AT.search(path + "/"):
                found.add(path)
    return found


def users():
    return (root / "etc" / "passwd").read_text() + (root / "etc" / "group").read_text()


def stream_of_readme():
    """The C host of the README, against a stream from this machine."""
    text = (repository / "README.md").read_text()
    (program,) = re.findall(r"^```c\n(.*?)^```$", text, re.M | re.S)
    with socket.socket(type=socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        url = f"udp://127.0.0.1:{probe.getsockname()[1]}"
    (root / "root" / "host.c").write_text(program)
    script = f"""cc -std=gnu11 -Wall -Werror host.c -o host $(pkg-config --cflags --libs gst-source shb)
        ffmpeg -nostdin -loglevel error -re -f lavfi -i testsrc2=size=320x180:rate=25 -c:v libx264 -preset ultrafast -tune zerolatency \
            -g 25 -pix_fmt yuv420p -f mpegts '{url}?pkt_size=1316' &
        ./host {url}"""
    out = inside("bash", "-euc", script).stdout
    assert re.search(r"^connected: H264 320x180, \d{2,} frames$", out, re.M), out
    (root / "root" / "host.c").unlink()
    (root / "root" / "host").unlink()


BOOT = r"""
mkdir -p /sys/fs/cgroup
umount -R /sys/fs/cgroup 2>/dev/null || true
mount -t cgroup2 cgroup2 /sys/fs/cgroup
ip link set lo up 2>/dev/null || true
export container=test
exec /lib/systemd/systemd --system --unit=multi-user.target --show-status=no
"""


def package_and_unit(within):
    """What installing and removing does to a service that runs."""

    def ask(*command):
        run = within(*command)
        assert run.returncode == 0, f"{' '.join(command)} ended with {run.returncode}:\n{run.stdout}"
        return run.stdout.strip()

    assert ask("systemctl", "is-enabled", "gst-source") == "enabled"
    ask("systemctl", "start", "gst-source")
    before = ask("systemctl", "show", "--property=MainPID", "--value", "gst-source")
    ask("apt-get", "-qq", "-y", "-o", "Dpkg::Use-Pty=0", "install", "--reinstall", "gst-source")
    assert ask("systemctl", "is-active", "gst-source") == "active"
    after = ask("systemctl", "show", "--property=MainPID", "--value", "gst-source")
    assert after != before, "the service still runs what was installed before"
    ask("apt-get", "-qq", "-y", "-o", "Dpkg::Use-Pty=0", "remove", "gst-source")
    assert within("test", "-e", f"/proc/{after}").returncode != 0, "the service outlived its package"
    assert (root / "etc" / "gst-source" / "gst-source.toml").exists(), "the file of sources went without a purge"


def service():
    """systemd as the first process of the root, and the unit's test in it."""
    for unit in ("systemd-networkd", "systemd-resolved", "systemd-timesyncd", "systemd-udevd", "apt-daily.timer", "getty@tty1"):
        inside("systemctl", "mask", unit, check=False, quiet=True)
    log = root / "var" / "log" / "boot"
    with open(log, "wb") as out:
        first = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--ipc", "--uts", "--net", "--cgroup",
                                  "--fork", "--kill-child", "bash", "-euc", ENTER, "enter", str(root), "bash", "-euc", BOOT],
                                 env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=out, stderr=out)  # fmt: skip
    try:
        pid = None
        limit = time.monotonic() + 120

        def within(*command):
            return subprocess.run(["nsenter", f"--target={pid}", "--all", "--wd=/", *command], env=ENVIRONMENT,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip

        while True:
            children = Path(f"/proc/{first.pid}/task/{first.pid}/children").read_text().split()
            pid = children[0] if children else None
            state = within("systemctl", "is-system-running").stdout.strip() if pid else ""
            if state in ("running", "degraded"):
                break
            if time.monotonic() > limit or first.poll() is not None:
                sys.exit(f"[{release}] systemd did not start ({state}):\n{log.read_text(errors='replace')}")
            time.sleep(0.5)
        run = within("sh", "/root/tests/service")
        if run.returncode != 0:
            journal = within("journalctl", "--no-pager", "-u", "gst-source").stdout
            sys.exit(f"[{release}] the unit's test ended with {run.returncode}:\n{run.stdout}\n{journal}")
        package_and_unit(within)
        within("systemctl", "poweroff", "--force", "--force")
    finally:
        first.send_signal(signal.SIGKILL)
        first.wait()
        log.unlink()


def main():
    apt("update")
    say("installing what the tests themselves take ...")
    apt("install", "--no-install-recommends", *TOOLS)
    before, users_before = files(), users()

    say("installing the version before, then this one ...")
    old = root.parent / f"{root.name}.earlier"
    shutil.rmtree(old, ignore_errors=True)
    earlier(old)
    offer(old)
    shutil.rmtree(old)
    apt("install", "--no-install-recommends", *OURS)
    assert "0.9.0" in inside("dpkg-query", "-W", "gst-source").stdout
    new = root.parent / f"{root.name}.new"
    shutil.rmtree(new, ignore_errors=True)
    new.mkdir()
    for deb in debs():
        shutil.copy(deb, new)
    offer(new)
    shutil.rmtree(new)
    apt("upgrade")
    for package in OURS:
        assert "1.0.0" in inside("dpkg-query", "-W", package).stdout, package

    shutil.copytree(repository / "packaging" / "debian" / "tests", root / "root" / "tests")
    for test in ("stream", "build", "python"):
        say(f"the packages' test {test} ...")
        inside("sh", f"/root/tests/{test}")
    say("the host of the README ...")
    stream_of_readme()
    say("systemd and the unit ...")
    service()
    shutil.rmtree(root / "root" / "tests")

    say("purging ...")
    apt("purge", *OURS)
    apt("autoremove", "--purge")
    left = sorted(path for path in files() - before if re.search(r"gst[-_]source|shb", path))
    assert not left, f"purged, and left behind: {left}"
    assert users() == users_before, f"purged, and users are others:\n{users()}"
    say("all held")


main()
