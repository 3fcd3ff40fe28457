"""Memory, threads and interruption: no leak, the GIL released during a run,
Ctrl-C and memory exhaustion turned into Python exceptions."""

from __future__ import annotations

import gc
import os
import signal
import subprocess
import sys
import textwrap
import threading

import numpy as np
import pytest

import splitmerge
from conftest import noise_image


def resident_bytes() -> int:
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def test_no_leak_over_1000_calls() -> None:
    image = noise_image((8, 32, 32), seed=21)
    lines: list[str] = []

    def call() -> None:
        result = splitmerge.segment(image.astype(np.float64), frames=True, regions=True,
                                    lines=True, progress=lines.append)
        assert result.frames.shape[0] >= 2
        lines.clear()
        # The error paths must not leak either.
        with pytest.raises(ValueError):
            splitmerge.segment(image, pred_choice=9)

    for _ in range(50):
        call()
    gc.collect()
    before = resident_bytes()
    for _ in range(1000):
        call()
    gc.collect()
    grown = resident_bytes() - before
    # One call holds about 100 kB of results: a leak of any of them over
    # 1000 calls would add 8 MB or more.
    assert grown < 4 << 20, f"resident memory grew by {grown} bytes"


def test_two_threads_segment_two_images_in_parallel() -> None:
    """Each run's progress callback sees the other run inside the library:
    the GIL is released during a run.

    Holding the GIL, a run would let the other thread execute Python code
    only while it executes Python itself (its own callback) or is not running.
    """
    images = [noise_image((64, 128, 128), seed=s, levels=6) for s in (5, 6)]
    expected = [splitmerge.segment(im, sigma=3.0) for im in images]
    states = [{"lines": 0, "in_callback": False, "done": False} for _ in images]
    seen_other_inside = [0, 0]
    results: list = [None, None]

    def work(k: int) -> None:
        me, other = states[k], states[1 - k]

        def progress(line: str) -> None:
            me["in_callback"] = True
            me["lines"] += 1
            if other["lines"] >= 1 and not other["in_callback"] and not other["done"]:
                seen_other_inside[k] += 1
            me["in_callback"] = False

        results[k] = splitmerge.segment(images[k], sigma=3.0, progress=progress)
        me["done"] = True

    threads = [threading.Thread(target=work, args=(k,)) for k in range(2)]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    for k in range(2):
        np.testing.assert_array_equal(results[k], expected[k])
    assert sum(seen_other_inside) > 0


def test_ctrl_c_during_a_run_raises_keyboard_interrupt() -> None:
    image = noise_image((64, 128, 128), seed=5, levels=6)
    full = splitmerge.segment(image, sigma=3.0, lines=True).lines
    lines: list[str] = []
    first_line, pressed = threading.Event(), threading.Event()

    def progress(line: str) -> None:
        lines.append(line)
        if len(lines) == 1:
            first_line.set()  # the run goes on in the library
        else:
            pressed.wait()  # it cannot end before Ctrl-C came

    def press_ctrl_c() -> None:
        first_line.wait()
        if lines:  # to the main thread, at once, as a terminal's Ctrl-C
            signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
        pressed.set()

    # Started in the background (nohup, CI), Python ignores SIGINT: install
    # the handler that turns it into KeyboardInterrupt, as a terminal has it.
    previous = signal.signal(signal.SIGINT, signal.default_int_handler)
    presser = threading.Thread(target=press_ctrl_c)
    presser.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            splitmerge.segment(image, sigma=3.0, progress=progress)
    finally:
        first_line.set()
        presser.join()
        signal.signal(signal.SIGINT, previous)
    assert 1 <= len(lines) < len(full)
    # The interpreter is fine and the library still works.
    assert splitmerge.segment(np.zeros((8, 8), np.int32)).max() == 1


@pytest.mark.parametrize("share", [0.25, 0.75])
def test_memory_exhaustion_is_a_memory_error(share: float) -> None:
    """Address space for a share of what the run was measured to take fails
    it, at an earlier or a later allocation."""
    program = textwrap.dedent(f"""
        import resource
        import numpy as np
        import splitmerge

        def peak_bytes():
            with open("/proc/self/status") as f:
                kib = dict(l.split(":", 1) for l in f.read().splitlines())["VmPeak"]
            return int(kib.split()[0]) << 10

        volume = np.zeros((256, 256, 256), np.int32)
        volume[::2] = 7
        volume[:, ::3] += 100
        splitmerge.segment(np.zeros((8, 8), np.int32), threads=1)
        with open("/proc/self/statm") as f:
            used = int(f.read().split()[0]) * resource.getpagesize()
        before = peak_bytes()
        run = dict(pred_choice="range", interval_length=0, threads=1)
        splitmerge.segment(volume, **run)
        need = peak_bytes() - before
        assert need > 64 << 20, need
        soft, hard = resource.getrlimit(resource.RLIMIT_AS)
        resource.setrlimit(resource.RLIMIT_AS, (used + int({share} * need), hard))
        try:
            splitmerge.segment(volume, **run)
        except MemoryError as e:
            print("MemoryError:", e)
        resource.setrlimit(resource.RLIMIT_AS, (soft, hard))
        print(splitmerge.segment(np.zeros((8, 8), np.int32), start_label=0).max())
    """)
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=600)
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines() == ["MemoryError: the segmentation ran out of memory", "0"]


@pytest.mark.parametrize("limit, says", [(8 * 1024, "the run needs at least "),
                                         (160 * 1024, "the run stopped at the memory budget of ")])
def test_a_run_above_memory_limit_is_refused_with_memory_error(limit: int, says: str) -> None:
    image = noise_image((64, 64), seed=4)
    with pytest.raises(MemoryError) as refused:
        splitmerge.segment(image, memory_limit=limit)
    message = str(refused.value)
    assert message.startswith(says)
    assert message.endswith("allow more with memory_limit='SIZE'")
    # A generous limit runs, and the default (None) allows what is available.
    limited = splitmerge.segment(image, memory_limit=2**30)
    np.testing.assert_array_equal(limited, splitmerge.segment(image))

