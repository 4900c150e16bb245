#!/usr/bin/python3
"""clipdec's Python module beside PyAV (Debian's python3-av), in one process,
on the same 1080p H.264 file:

  sequential   every frame in order as an RGBA NumPy array
  random       the frames at 100 pseudo-random times (fixed seed), each of
               which must be the frame on screen at its time: PyAV seeks back
               to the key frame and decodes forward to it
  usual way    PyAV as it is most often used for a time: seek there, take the
               first frame decoded; how many of those are the right frame
  threads      two threads each decoding a file, against one after the other

    PYTHONPATH=build/python bench/python_bench.py build/bench-media/bench_1080p.mp4
"""
import random
import sys
import threading
import time
from fractions import Fraction

import av

import clipdec

TIMES = 100
SEED = 20240611


def seconds(f):
    start = time.perf_counter()
    result = f()
    return time.perf_counter() - start, result


# ---------------------------------------------------------------- PyAV

def pyav_sequential(path):
    with av.open(path) as container:
        return sum(1 for frame in container.decode(video=0) if frame.to_ndarray(format="rgba") is not None)


def pyav_frame_on_screen(container, stream, t):
    """Seek to the key frame at or before t, decode forward to the last frame not after t."""
    target = int(t / stream.time_base)
    container.seek(target, stream=stream, backward=True, any_frame=False)
    shown = None
    for frame in container.decode(stream):
        if frame.pts > target and shown is not None:
            break
        shown = frame
        if frame.pts > target:
            break
    return shown.pts * stream.time_base, shown.to_ndarray(format="rgba")


def pyav_random(path, times):
    with av.open(path) as container:
        stream = container.streams.video[0]
        return [pyav_frame_on_screen(container, stream, t)[0] for t in times]


def pyav_usual(path, times):
    with av.open(path) as container:
        stream = container.streams.video[0]
        shown = []
        for t in times:
            container.seek(int(t / stream.time_base), stream=stream)
            frame = next(container.decode(stream))
            frame.to_ndarray(format="rgba")
            shown.append(frame.pts * stream.time_base)
        return shown


# ---------------------------------------------------------------- clipdec

def clipdec_sequential(path, frames):
    with clipdec.VideoDecoder(path) as video:
        return sum(1 for k in range(frames) if video.frame_at(Fraction(k, 25)) is not None)


def clipdec_random(path, times):
    with clipdec.VideoDecoder(path) as video:
        return [video.frame_at(t).pts for t in times]


def expected_times(times, rate=25):
    return [Fraction(int(t * rate), rate) for t in times]


def main(path, other=None):
    frames = pyav_sequential(path)  # warms the file cache too
    random.seed(SEED)
    duration = clipdec.probe(path).duration
    times = [Fraction(random.randrange(int(duration * 1000) - 40), 1000) for _ in range(TIMES)]
    want = expected_times(times)

    rows = []
    t_pyav, _ = seconds(lambda: pyav_sequential(path))
    t_clip, n = seconds(lambda: clipdec_sequential(path, frames))
    rows.append(("sequential, RGBA arrays", frames / t_pyav, n / t_clip, ""))
    t_pyav, shown_pyav = seconds(lambda: pyav_random(path, times))
    t_clip, shown_clip = seconds(lambda: clipdec_random(path, times))
    rows.append(("100 random times, right frame", TIMES / t_pyav, TIMES / t_clip,
                 "right: PyAV %d, clipdec %d" % (sum(a == b for a, b in zip(shown_pyav, want)),
                                                 sum(a == b for a, b in zip(shown_clip, want)))))
    t_usual, usual = seconds(lambda: pyav_usual(path, times))
    rows.append(("PyAV the usual way (seek, first frame)", TIMES / t_usual, None,
                 "right: %d of %d" % (sum(a == b for a, b in zip(usual, want)), TIMES)))

    print("%-40s %12s %12s %8s  %s" % ("", "PyAV fps", "clipdec fps", "ratio", ""))
    for name, a, b, note in rows:
        ratio = "%.2fx" % (b / a) if b else ""
        print("%-40s %12.1f %12s %8s  %s" % (name, a, "%.1f" % b if b else "", ratio, note))

    other = other or path
    one, _ = seconds(lambda: (clipdec_sequential(path, frames), clipdec_sequential(other, frames)))
    threads = [threading.Thread(target=clipdec_sequential, args=(p, frames)) for p in (path, other)]
    both, _ = seconds(lambda: ([t.start() for t in threads], [t.join() for t in threads]))
    print("two files with clipdec: one after the other %.2f s, two threads %.2f s (%.2fx)" % (one, both, one / both))


if __name__ == "__main__":
    main(*sys.argv[1:])
