"""The qmelm module against real processes, threads and files.

Other holders are separate Python processes (Holder) that lock through qmelm
or through fcntl.lockf, so what they see is what any other program sees.
"""
import errno
import json
import os
import subprocess
import sys
import threading

import pytest

import qmelm

# A process that takes one lock and holds it until told to let go: it prints
# "ready" once it holds the lock, releases on the first line of its standard
# input, prints "released", and exits at the end of its input.
HOLDER = r"""
import fcntl, os, sys
import qmelm
path, how, mode = sys.argv[1:4]
if how == "qmelm":
    lock = qmelm.lock(path, mode=mode)
else:
    fd = os.open(path, os.O_RDWR | os.O_CREAT)
    fcntl.lockf(fd, fcntl.LOCK_EX if mode == "write" else fcntl.LOCK_SH)
print("ready", flush=True)
sys.stdin.readline()
if how == "qmelm":
    lock.release()
else:
    os.close(fd)
print("released", flush=True)
sys.stdin.read()
"""

# Whether another process can take a record lock on a file now: exits 0 when
# fcntl.lockf grants it, 1 when it is refused.
TRY_LOCKF = r"""
import fcntl, os, sys
fd = os.open(sys.argv[1], os.O_RDWR | os.O_CREAT)
try:
    fcntl.lockf(fd, (fcntl.LOCK_EX if sys.argv[2] == "write" else fcntl.LOCK_SH) | fcntl.LOCK_NB)
except OSError:
    sys.exit(1)
"""

# A guard against a test that would otherwise hang, never a measurement.
GUARD = 60


class Holder:
    """Another process holding a lock on path (mode "write" or "read")."""

    def __init__(self, path, mode="write", how="qmelm"):
        self.proc = subprocess.Popen(
            [sys.executable, "-c", HOLDER, str(path), how, mode],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.proc.stdout.readline() == "ready\n"
        self.pid = self.proc.pid

    def release(self):
        self.proc.stdin.write("go\n")
        self.proc.stdin.flush()
        assert self.proc.stdout.readline() == "released\n"

    def close(self):
        self.proc.stdin.close()
        self.proc.wait(GUARD)


@pytest.fixture
def holders():
    made = []

    def make(*args, **kwargs):
        made.append(Holder(*args, **kwargs))
        return made[-1]

    yield make
    for h in made:
        h.close()


def others_can_lock(path, mode="write"):
    """Whether a process other than this one is granted a lock of mode now."""
    return subprocess.run([sys.executable, "-c", TRY_LOCKF, str(path), mode],
                          timeout=GUARD).returncode == 0


def wait_for_child(pid):
    """The exit status of child pid; kills it and fails when it hangs."""
    done = threading.Event()
    timer = threading.Timer(GUARD, lambda: done.is_set() or os.kill(pid, 9))
    timer.start()
    _, status = os.waitpid(pid, 0)
    done.set()
    timer.cancel()
    assert not os.WIFSIGNALED(status), "the child hung and was killed"
    return os.WEXITSTATUS(status)


def our_locks(path):
    return [(r["kind"], r["mode"]) for r in qmelm.probe(path)["locks"] if r["pid"] == os.getpid()]


class TestContextManager:
    def test_held_inside_the_block_and_released_after_it(self, tmp_path):
        path = tmp_path / "orders.db"
        with qmelm.lock(path) as lock:
            assert lock.held and lock.mode == "write"
            assert os.fstat(lock.fileno()).st_ino == os.stat(path).st_ino
            assert our_locks(path) == [("POSIX", "write")]
            assert not others_can_lock(path, "read")
        assert not lock.held
        assert qmelm.probe(path)["held"] is False
        assert others_can_lock(path)
        with pytest.raises(ValueError):
            lock.fileno()
        lock.release()  # a second release gives nothing back, and says nothing

    def test_an_exception_in_the_block_releases_the_lock(self, tmp_path):
        path = tmp_path / "orders.db"
        with pytest.raises(KeyError):
            with qmelm.lock(path):
                raise KeyError("out")
        assert others_can_lock(path)

    def test_readers_share_a_writer_waits(self, tmp_path, holders):
        path = tmp_path / "orders.db"
        holders(path, "read")
        with qmelm.lock(path, mode="read") as lock:
            assert lock.held and lock.mode == "read"
            assert others_can_lock(path, "read")
            assert not others_can_lock(path, "write")

    def test_delete_on_close_removes_the_file_with_the_last_holder(self, tmp_path):
        path = tmp_path / "scratch"
        with qmelm.lock(str(path), delete_on_close=True):
            assert path.exists()
        assert not path.exists()


class TestOtherProcesses:
    @pytest.mark.parametrize("how", ["qmelm", "lockf"])
    def test_lockheld_names_the_holder(self, tmp_path, holders, how):
        path = tmp_path / "orders.db"
        holder = holders(path, "write", how)
        with pytest.raises(qmelm.LockHeld) as refused:
            qmelm.lock(path, mode="read")
        e = refused.value
        assert isinstance(e, BlockingIOError) and e.errno == errno.EAGAIN
        assert (e.pid, e.machine) == (holder.pid, "local")
        assert e.command == open(f"/proc/{holder.pid}/comm").read().strip()
        assert e.status == "QMELM_E_EXT_LOCKED_EXCLUSIVE"
        assert str(holder.pid) in str(e) and e.journal in str(e)

    def test_timeout_against_a_holder_that_stays(self, tmp_path, holders):
        path = tmp_path / "orders.db"
        holder = holders(path)
        with pytest.raises(TimeoutError) as timed_out:
            qmelm.lock(path, timeout=0.2)
        assert isinstance(timed_out.value.__cause__, qmelm.LockHeld)
        assert timed_out.value.__cause__.pid == holder.pid
        assert str(holder.pid) in str(timed_out.value)

    def test_a_timed_wait_lets_other_threads_run_and_ends_with_the_release(self, tmp_path,
                                                                          holders):
        # The thread that ends the holder's lock runs only while the waiting
        # thread has given the GIL back.
        path = tmp_path / "orders.db"
        holder = holders(path)
        waiting = threading.Event()
        releaser = threading.Thread(target=lambda: (waiting.wait(GUARD), holder.release()))
        releaser.start()
        waiting.set()
        with qmelm.lock(path, timeout=GUARD) as lock:
            assert lock.held
        releaser.join(GUARD)

    def test_upgrade_refused_while_another_process_reads(self, tmp_path, holders):
        path = tmp_path / "orders.db"
        reader = holders(path, "read")
        with qmelm.lock(path, mode="read") as lock:
            with pytest.raises(qmelm.LockHeld) as refused:
                lock.upgrade()
            assert refused.value.pid == reader.pid
            assert refused.value.status == "QMELM_E_EXT_LOCKED_SHARED"
            # The refusal changed nothing: still a reader, as the others see.
            assert lock.mode == "read" and lock.held
            assert our_locks(path) == [("POSIX", "read")]
            with pytest.raises(TimeoutError):
                lock.upgrade(timeout=0.1)
            reader.release()
            lock.upgrade(timeout=GUARD)
            assert lock.mode == "write" and our_locks(path) == [("POSIX", "write")]
            assert not others_can_lock(path, "read")
            lock.downgrade()
            assert lock.mode == "read" and others_can_lock(path, "read")
            assert not others_can_lock(path, "write")

    def test_probe_answers_as_qmlock_probe_json(self, tmp_path, holders):
        qmlock = os.environ.get("QMLOCK")
        if not qmlock:
            pytest.skip("QMLOCK names no qmlock to compare with")
        path = tmp_path / "orders.db"
        holders(path, "read")
        with qmelm.lock(path, mode="read"):
            tool = subprocess.run([qmlock, "probe", "--json", str(path)], capture_output=True,
                                  text=True, timeout=GUARD)
            assert tool.returncode == 1, tool.stderr
            mine = qmelm.probe(path)
        assert [mine] == json.loads(tool.stdout)
        assert len(mine["locks"]) == 2
        free = tmp_path / "free"
        free.touch()
        assert qmelm.probe(free) == {"path": str(free), "held": False, "remote_filesystem": None,
                                     "locks": []}

    def test_probe_keeps_this_process_s_locks(self, tmp_path):
        # probe() must not open and close the file: that would drop the
        # record locks this process holds on it.
        path = tmp_path / "orders.db"
        with qmelm.lock(path) as lock:
            for _ in range(3):
                qmelm.probe(path)
            assert lock.held and not others_can_lock(path, "read")


class TestThreads:
    def test_a_thread_is_refused_while_another_holds(self, tmp_path):
        path = tmp_path / "orders.db"
        refusals = []

        def contend():
            try:
                qmelm.lock(path, mode="read")
            except qmelm.LockHeld as e:
                refusals.append(e)

        with qmelm.lock(path):
            t = threading.Thread(target=contend)
            t.start()
            t.join(GUARD)
        assert len(refusals) == 1
        assert (refusals[0].pid, refusals[0].machine) == (os.getpid(), "local")
        assert refusals[0].status == "QMELM_E_INT_LOCKED_EXCLUSIVE"

    def test_threads_exclude_each_other(self, tmp_path):
        # Each thread reads a counter from the file, lets the others run, and
        # writes it back one higher, under the lock: no increment is lost.
        path = tmp_path / "counter"
        path.write_text("0")
        threads, rounds = 6, 40
        errors = []

        def work():
            try:
                for _ in range(rounds):
                    # Through the lock's descriptor: closing another one of
                    # the file would drop the process's record lock.
                    with qmelm.lock(path, timeout=GUARD) as lock:
                        n = int(os.pread(lock.fileno(), 32, 0))
                        threading.Event().wait(0.0005)
                        os.pwrite(lock.fileno(), str(n + 1).encode(), 0)
            except Exception as e:  # reported below, with the count
                errors.append(e)

        workers = [threading.Thread(target=work) for _ in range(threads)]
        for w in workers:
            w.start()
        for w in workers:
            w.join(GUARD)
        assert errors == []
        assert int(path.read_text()) == threads * rounds


class TestFork:
    def test_the_child_holds_nothing_and_the_parent_keeps_its_lock(self, tmp_path):
        path, other = tmp_path / "orders.db", tmp_path / "child.db"
        with qmelm.lock(path) as lock:
            parent = os.getpid()
            r, w = os.pipe()
            pid = os.fork()
            if pid == 0:
                os.close(r)
                report = {}
                try:
                    report["held"] = lock.held
                    report["ours"] = our_locks(path)
                    try:
                        qmelm.lock(path, timeout=0.05)
                    except TimeoutError as e:
                        report["holder"] = e.__cause__.pid
                    lock.release()  # the parent's lock: the child gives nothing back
                    with qmelm.lock(other) as mine:
                        report["own"] = mine.held
                except BaseException as e:
                    report["error"] = repr(e)
                os.write(w, json.dumps(report).encode())
                os._exit(0)
            os.close(w)
            with os.fdopen(r) as f:
                report = json.loads(f.read())
            assert os.waitpid(pid, 0)[1] == 0
            assert report == {"held": False, "ours": [], "holder": parent, "own": True}
            assert lock.held and not others_can_lock(path, "read")
        assert others_can_lock(path)


    def test_forks_while_other_threads_lock_leave_children_that_work(self, tmp_path):
        # Threads lock, probe and release all the time; each child of a fork
        # taken in the middle of that must still lock, probe and release.
        shared = qmelm.lock(tmp_path / "shared.db", mode="read")
        stop = threading.Event()
        errors = []

        def churn(name):
            try:
                while not stop.is_set():
                    with qmelm.lock(tmp_path / name, timeout=GUARD) as lock:
                        qmelm.probe(tmp_path / name)
                        if not (lock.held and all(shared.held for _ in range(5))):
                            errors.append(f"{name} not held")
            except Exception as e:  # reported below
                errors.append(e)

        workers = [threading.Thread(target=churn, args=(f"t{i}.db",)) for i in range(3)]
        for w in workers:
            w.start()
        try:
            for i in range(50):
                pid = os.fork()
                if pid == 0:
                    code = 1
                    try:
                        shared.release()
                        with qmelm.lock(tmp_path / f"child{i}.db") as mine:
                            code = 0 if mine.held and not shared.held else 2
                            qmelm.probe(tmp_path / "t0.db")
                    finally:
                        os._exit(code)
                assert wait_for_child(pid) == 0
        finally:
            stop.set()
            for w in workers:
                w.join(GUARD)
        assert errors == [] and shared.held


class TestErrors:
    def test_statuses_other_than_conflicts_are_oserrors(self, tmp_path):
        with pytest.raises(FileNotFoundError) as missing:
            qmelm.lock(tmp_path / "no" / "such" / "dir" / "x")
        assert missing.value.status in ("QMELM_E_PATH_NOT_FOUND", "QMELM_E_FILE_NOT_FOUND")
        assert missing.value.journal and missing.value.status in str(missing.value)
        with pytest.raises(OSError) as nul:
            qmelm.lock(str(tmp_path / "a\0b"))
        assert nul.value.errno == errno.EINVAL and nul.value.status == "QMELM_E_NAME_HAS_NUL"
        assert not isinstance(nul.value, qmelm.LockHeld)
