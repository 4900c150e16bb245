#!/usr/bin/python3
"""A first look at clipdec from Python: a movie's streams, the picture on
screen at an exact time as a NumPy array, and an exact span of its audio.

    PYTHONPATH=<build>/python python3 examples/python_quickstart.py MOVIE
"""
import sys

import clipdec


def main(path):
    movie = clipdec.probe(path)
    print(movie)
    for stream in movie.streams:
        print("  ", stream)
    if movie.first("video"):
        with clipdec.VideoDecoder(path) as video:
            frame = video.frame_at("00:00:02.500")
            print("picture at 2.5 s: %s array %s, shown from %.3f s" % (frame.data.dtype, frame.data.shape,
                                                                          frame.pts))
    if movie.first("audio"):
        with clipdec.AudioDecoder(path) as audio:
            pcm = audio.samples(1, 1.02, rate=44100, channels=2)
            print("audio 1.00-1.02 s at 44.1 kHz: %d samples, peak %d of 100"
                  % (len(pcm), clipdec.audio_peak(pcm)))
    strip = clipdec.filmstrip(path, count=4, fast=True)
    print("filmstrip (key frames):", ", ".join("%.2f s" % p.shown for p in strip))


if __name__ == "__main__":
    main(sys.argv[1])
