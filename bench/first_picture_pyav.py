#!/usr/bin/python3
"""PyAV's first picture of a file it has not seen, for bench/first_picture_bench.cpp.

Usage: first_picture_pyav.py FILE TRIALS. Each trial opens a fresh hard link to
FILE, decodes the first video frame and converts it to an RGBA array; the
seconds each trial took are printed one per line.
"""
import os
import sys
import time

import av


def first_picture(path):
    with av.open(path) as container:
        frame = next(container.decode(video=0))
        return frame.to_ndarray(format="rgba")


def main():
    source, trials = sys.argv[1], int(sys.argv[2])
    for trial in range(trials):
        link = "%s.pyav%d_%d.mp4" % (source, os.getpid(), trial)
        if os.path.exists(link):
            os.unlink(link)
        os.link(source, link)
        start = time.perf_counter()
        first_picture(link)
        print(time.perf_counter() - start, flush=True)
        os.unlink(link)


if __name__ == "__main__":
    main()
