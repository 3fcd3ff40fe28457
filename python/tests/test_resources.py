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
import time

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


def big_volume() -> np.ndarray:
    return noise_image((64, 128, 128), seed=5, levels=6)


def test_two_threads_segment_two_images_in_parallel() -> None:
    """Each run's progress callback sees the other run inside the library:
    the GIL is released during a run.

    Holding the GIL, a run would let the other thread execute Python code
    only while it executes Python itself (its own callback) or is not running.
    """
    images = [big_volume(), noise_image((64, 128, 128), seed=6, levels=6)]
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
    started = time.perf_counter()
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    seconds = time.perf_counter() - started
    for k in range(2):
        np.testing.assert_array_equal(results[k], expected[k])
    assert sum(seen_other_inside) > 0
    print(f"two 64 x 128 x 128 runs in two threads: {seconds:.2f} s")


def test_ctrl_c_during_a_run_raises_keyboard_interrupt() -> None:
    image = big_volume()
    first_line = threading.Event()
    lines: list[str] = []

    def progress(line: str) -> None:
        lines.append(line)
        first_line.set()

    def press_ctrl_c() -> None:
        if first_line.wait(timeout=60):
            os.kill(os.getpid(), signal.SIGINT)

    full = splitmerge.segment(image, sigma=3.0, lines=True).lines
    # Started in the background (nohup, CI), the process ignores SIGINT:
    # Ctrl-C must reach Python's own handler here.
    previous = signal.signal(signal.SIGINT, signal.default_int_handler)
    presser = threading.Thread(target=press_ctrl_c)
    try:
        presser.start()
        with pytest.raises(KeyboardInterrupt):
            splitmerge.segment(image, sigma=3.0, progress=progress)
    finally:
        presser.join()
        signal.signal(signal.SIGINT, previous)
    assert 1 <= len(lines) < len(full)
    # The interpreter is fine and the library still works.
    assert splitmerge.segment(np.zeros((8, 8), np.int32)).max() == 1


@pytest.mark.parametrize("headroom_mb", [40, 120])
def test_memory_exhaustion_is_a_memory_error(headroom_mb: int) -> None:
    program = textwrap.dedent(f"""
        import resource
        import numpy as np
        import splitmerge
        volume = np.zeros((256, 256, 256), np.int32)
        volume[::2] = 7
        volume[:, ::3] += 100
        splitmerge.segment(np.zeros((8, 8), np.int32))
        with open("/proc/self/statm") as f:
            used = int(f.read().split()[0]) * resource.getpagesize()
        limit = used + ({headroom_mb} << 20)
        soft, hard = resource.getrlimit(resource.RLIMIT_AS)
        resource.setrlimit(resource.RLIMIT_AS, (limit, hard))
        try:
            splitmerge.segment(volume, pred_choice="range", interval_length=0)
        except MemoryError as e:
            print("MemoryError:", e)
        resource.setrlimit(resource.RLIMIT_AS, (soft, hard))
        print(splitmerge.segment(np.zeros((8, 8), np.int32), start_label=0).max())
    """)
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=300)
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


@pytest.mark.parametrize("bad, error", [(0, ValueError), (-1, ValueError), (2**64, ValueError),
                                        (1.5, TypeError), (True, TypeError), ("1G", TypeError)])
def test_memory_limit_must_be_a_positive_int(bad: object, error: type) -> None:
    with pytest.raises(error, match="memory_limit"):
        splitmerge.segment(noise_image((8, 8), seed=1), memory_limit=bad)  # type: ignore[arg-type]
