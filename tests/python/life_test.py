"""The end of the interpreter and forked children, with everything open."""

import unittest
from pathlib import Path

from support import Case, leftovers, unique_name

EVERYTHING = """
import asyncio, gst_source, os, sys, threading
name = sys.argv[1]
buffer = gst_source.Buffer(name)
writer = buffer.writer()
writer.on_stall(print)
buffer.stall_watch_ms = 100
for _ in range(5):
    writer.write(b"x" * 1000, key=True)
map = gst_source.Map(name)
reader, waiting, borrower, in_set = (map.reader(start="oldest") for _ in range(4))
waiting.seek("newest")
readers = gst_source.ReaderSet(in_set)
follow = gst_source.Follow(name)
stream = map.reader(start="oldest").stream()
borrowing = borrower.borrow()
frame = borrowing.__enter__()
view = frame.data
"""


class Exit(Case):
    maxDiff = None

    def leaves_nothing(self, code, result=0):
        name = unique_name()
        child = self.child(EVERYTHING + code, name, stdout=-1, stderr=-1)
        out, err = child.communicate(timeout=60)
        self.assertEqual(child.returncode, result, err)
        self.assertEqual(leftovers(name), [])
        self.assertEqual(list(Path("/dev/shm").glob(f"{name}*")), [])
        return out, err

    def test_with_everything_open(self):
        self.assertEqual(self.leaves_nothing("numbers = bytes(view)"), ("", ""))

    def test_by_an_exception(self):
        _, err = self.leaves_nothing("1 / 0", 1)
        self.assertTrue(err.endswith("ZeroDivisionError: division by zero\n"), err)

    def test_while_a_thread_waits(self):
        code = """
def wait():
    started.set()
    waiting.read()
started = threading.Event()
threading.Thread(target=wait, daemon=True).start()
started.wait()
"""
        # The buffer closes under it, which it may live to see.
        self.leaves_nothing(code)

    def test_inside_a_borrow_and_a_loop_of_asyncio(self):
        code = """
borrowing.__exit__(None, None, None)
async def leave():
    async for frame in stream:
        sys.exit(3)
with borrower.borrow():
    asyncio.run(leave())
"""
        self.leaves_nothing(code, 3)

    def test_with_a_handler_that_runs(self):
        code = """
in_handler = threading.Event()
def handler(ms):
    in_handler.set()
    writer.write(b"y")
writer.on_stall(handler)
in_handler.wait()
"""
        self.assertEqual(self.leaves_nothing(code), ("", ""))

    def test_of_one_that_only_reads_loads_no_framework(self):
        code = "print(any('gstreamer' in line or 'libgst_source' in line for line in open('/proc/self/maps')))"
        self.assertEqual(self.leaves_nothing(code)[0], "False\n")


CHILD = """
def refused(call):
    try:
        call()
    except gst_source.ForkError as error:
        return str(error).endswith("belongs to the parent process")
    return False

def child():
    calls = [
        lambda: reader.read(0), lambda: reader.wait(0), lambda: waiting.read(0), lambda: reader.seek("key"), reader.stats,
        reader.stream, lambda: in_set.read(0), lambda: readers.next(0), readers.fileno, lambda: readers.add(reader),
        lambda: readers.remove(in_set), lambda: gst_source.wait_any([reader], 0), lambda: map.alive, map.stats, map.info,
        map.reader, lambda: map.open_av(where="key"), lambda: follow.next(0), follow.info, follow.stream,
        lambda: writer.write(b"x"), lambda: writer.on_stall(None), lambda: writer.set_clock(1), buffer.stats, buffer.writer,
        lambda: buffer.name, lambda: buffer.open("udp://127.0.0.1:5000"), buffer.__enter__,
        lambda: buffer.set_presence("absent"),
    ]
    print([number for number, call in enumerate(calls) if not refused(call)])
    borrowing.__exit__(None, None, None)
    stream.close()
    for one in (reader, waiting, borrower, in_set, readers, follow, map, writer, buffer):
        one.close()
    with gst_source.Map(name) as own, own.reader(start="oldest") as own_reader:
        print(len([own_reader.read(0) for _ in range(5)]))
    with gst_source.Buffer(name + "-child") as own:
        own.writer().write(b"y")
        print(own.stats().frames, flush=True)
"""

PARENT = """
    _, status = os.waitpid(pid, 0)
    print(os.waitstatus_to_exitcode(status))
    borrowing.__exit__(None, None, None)
    writer.write(b"z", key=True)
    got = [reader.read(0) for _ in range(6)]
    print(map.alive, len(got), readers.next(1) is in_set, follow.next(1)[0].size, buffer.stats().frames)
"""


class Fork(Case):
    def forked(self, code):
        name = unique_name()
        child = self.child(EVERYTHING + CHILD + code, name, stdout=-1, stderr=-1)
        out, err = child.communicate(timeout=60)
        self.assertEqual(child.returncode, 0, out + err)
        self.assertEqual(leftovers(name), [])
        self.assertEqual(out.splitlines(), ["[]", "5", "1", "0", "True 6 True 1000 6"], err)

    def test_a_child_has_nothing_of_its_parents(self):
        self.forked("pid = os.fork()\nif pid == 0:\n    child()\nelse:" + PARENT)

    def test_a_child_that_leaves_at_once_takes_nothing_away(self):
        self.forked("pid = os.fork()\nif pid == 0:\n    child()\n    sys.stdout.flush()\n    os._exit(0)\nelse:" + PARENT)

    def test_a_child_of_many_threads_finds_no_lock_taken(self):
        code = (
            """
def wait():
    try:
        waiting.read()
    except (gst_source.Closed, gst_source.UseAfterClose):
        pass
started = [threading.Thread(target=wait, daemon=True) for _ in range(5)]
for thread in started:
    thread.start()
pid = os.fork()
if pid == 0:
    child()
else:"""
            + PARENT
        )
        self.forked(code)


if __name__ == "__main__":
    unittest.main()
