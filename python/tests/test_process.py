"""The ends of the interpreter, forks, signals, and what thousands of calls leave behind. Each in a process of its
own."""

import signal
import subprocess
import sys
import textwrap
import time

import pytest

PREAMBLE = """
import logging, os, sys, threading, time, signal
import tidalcrest.sync as tc
logging.getLogger("tidalcrest.sync").addHandler(logging.NullHandler())  # standard error is for trouble
url, token, secret, data_dir = sys.argv[1:]
options = dict(server_url=url, get_token=lambda: token, get_wallet_secret=lambda: bytes.fromhex(secret))
"""


@pytest.fixture
def python(origin, data_dir):
    processes = []

    def start(code):
        process = subprocess.Popen(
            [sys.executable, "-c", PREAMBLE + textwrap.dedent(code), origin.url, origin.token, origin.secret.hex(),
             str(data_dir)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        processes.append(process)
        return process

    def run(code):
        process = start(code)
        out, err = process.communicate(timeout=60)
        return process.returncode, out, err

    run.start = start
    yield run
    for process in processes:
        if process.poll() is None:
            process.kill()
        process.communicate()


def test_the_interpreter_ends_while_threads_run(python):
    started = time.monotonic()
    code, out, err = python("""
        def slow_token():
            time.sleep(0.02)
            return token
        manager = tc.SyncManager.get_or_create(data_dir, **{**options, "get_token": slow_token}, poll_interval_s=0.01)
        manager.acquire()
        era = tc.EraThread(url, slow_token, manager, era_poll_interval_s=0.01)
        era.start()
        other = tc.SyncManager(data_dir, **options)
        threading.Thread(target=lambda: [other.sync() for _ in range(10**6)], daemon=True).start()
        time.sleep(0.5)
        print("leaving")
    """)
    assert (code, out, err) == (0, "leaving\n", "")
    assert time.monotonic() - started < 20


def test_a_stuck_callback_does_not_keep_the_process(python):
    code, _, err = python("""
        stuck = threading.Event()
        def get_token():
            stuck.set()
            time.sleep(3600)
        manager = tc.SyncManager(data_dir, url, get_token)
        threading.Thread(target=manager.sync, daemon=True).start()
        stuck.wait(20)
    """)
    assert (code, err) == (0, "")


def test_a_fork_that_does_not_use_the_manager(python):
    code, out, err = python("""
        manager = tc.SyncManager.get_or_create(data_dir, **options, poll_interval_s=0.01)
        manager.acquire()
        own = tc.SyncManager(data_dir, **options)
        own.sync()
        for leave in (os._exit, sys.exit):
            pid = os.fork()
            if pid == 0:
                del own, manager
                leave(7)
            assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 7
        print(own.sync().era_number)
        manager.release()
    """)
    assert (code, out, err) == (0, "1\n", "")


def test_a_forked_worker_begins_anew(python):
    code, out, err = python("""
        import multiprocessing
        manager = tc.SyncManager.get_or_create(data_dir, **options)
        manager.sync()
        pinned = manager.pin_active_cohort_snapshot()
        def work():
            own = tc.SyncManager.get_or_create(data_dir, **options)
            assert own is not manager
            own.acquire()
            found = len(own.request_for_sync())
            print(found, flush=True)
            own.release() if found else None
        with pinned:
            child = multiprocessing.get_context("fork").Process(target=lambda: print("beside a pin", flush=True))
            child.start()
            child.join(20)
        child = multiprocessing.get_context("fork").Process(target=work)
        child.start()
        child.join(20)
        assert child.exitcode == 0, child.exitcode
        assert manager.verify().valid
    """)
    assert (code, out, err) == (0, "beside a pin\n5\n", "")


def test_questions_while_another_thread_starts_the_manager(python):
    code, out, err = python("""
        import types
        module = sys.modules["tidalcrest.security.transport"] = types.ModuleType("transport")
        module.validate_bearer_transport_url = lambda address: time.sleep(0.05)
        manager = tc.SyncManager(data_dir, **options)
        for _ in range(5):
            starter = threading.Thread(target=manager.acquire)
            starter.start()
            while starter.is_alive():
                manager.is_alive(), manager.status(), manager.consumer_count(), manager.get_manifest()
            manager.release()
    """)
    assert (code, out, err) == (0, "", "")


def test_managers_go_while_other_threads_collect_and_call(python):
    code, out, err = python("""
        import gc
        shared = tc.SyncManager.get_or_create(data_dir, **options, poll_interval_s=0.01)
        shared.sync()
        end = time.monotonic() + 3
        def come_and_go():
            manager = tc.SyncManager(data_dir, **options, poll_interval_s=0.01)
            manager.me = [manager.get_manifest().files]
            manager.register_era_callback(lambda *event: gc.collect(0))
            manager.start()
            manager._notify_era_callbacks("kill", 1)
        def found_again():
            manager = tc.SyncManager.get_or_create(data_dir, **options)
            manager.acquire(), manager.is_alive(), manager.release()
        def until_the_end(call):
            while time.monotonic() < end:
                call()
        threads = [threading.Thread(target=until_the_end, args=(call,))
                   for call in (come_and_go, come_and_go, found_again, gc.collect, shared.sync, shared.verify)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(30)
        print(sum(thread.is_alive() for thread in threads))
    """)
    assert (code, out, err) == (0, "0\n", "")


def test_ctrl_c_ends_a_wait(python, origin):
    origin.fault("/data/manifest* status=503 count=all")
    process = python.start("""
        manager = tc.SyncManager(data_dir, **options)
        print("syncing", flush=True)
        try:
            manager.sync()
        except KeyboardInterrupt:
            print("interrupted", flush=True)
            time.sleep(0.1)  # the interpreter's own handler is back in place
            os.kill(os.getpid(), signal.SIGINT)
    """)
    assert process.stdout.readline() == "syncing\n"
    time.sleep(1)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=20)
    assert out == "interrupted\n" and "KeyboardInterrupt" in err
    assert process.returncode == -signal.SIGINT


def test_thousands_of_calls_leave_nothing_behind(python):
    code, out, err = python("""
        import gc, resource
        def held():
            gc.collect()
            with open("/proc/self/statm") as statm:
                pages = int(statm.read().split()[1])
            return sys.gettotalrefcount() if hasattr(sys, "gettotalrefcount") else len(gc.get_objects()), \\
                len(os.listdir("/proc/self/fd")), pages * resource.getpagesize()

        manager = tc.SyncManager(data_dir, **options)
        manager.sync()
        heard = [0]
        def hear(event_type, era_number):
            heard[0] += 1
            if era_number % 2:
                raise ValueError("odd")
        class Consumer:
            def refresh_rotation_scope(self, state, vocabulary):
                heard[0] += 1
        logging.getLogger("tidalcrest.sync").setLevel(logging.CRITICAL)
        state, document = tc.RotationState(), {"features": {"a": [1, 2.5, None]}}

        def round_of(calls):
            for number in range(calls):
                manager.register_era_callback(hear)
                manager._notify_era_callbacks("kill", number)
                manager.unregister_era_callback(hear)
                consumer = Consumer()
                manager.register_rotation_search_consumer(consumer)
                manager.refresh_running_searches_for_rotation(state, document)
                manager.unregister_rotation_search_consumer(consumer)
                manager.status(), manager.consumer_count(), manager.get_manifest().files
                tc.Manifest({"era_number": number, "files": {"a": {"kind": "feature"}}}).to_dict()
                try:
                    manager.report_corruption("a")
                except tc.StateError:
                    pass
                if number % 100 == 0:
                    manager.needs_sync()
                    with manager.pin_active_cohort_snapshot():
                        pass
                    tc.SyncManager(data_dir, **options)

        count = sys.getrefcount(hear), sys.getrefcount(state)
        round_of(1000)
        before = held()
        round_of(10_000)
        after = held()
        assert heard[0] == 22_000, heard
        assert (sys.getrefcount(hear), sys.getrefcount(state)) == count
        assert after[0] - before[0] < 200 and after[1] == before[1], (before, after)
        assert after[2] - before[2] < 4 << 20, (before, after)
    """)
    assert (code, err) == (0, "")
