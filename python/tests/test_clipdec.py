"""The Python module against the project's generated media: pictures read
back by the index their bars show, audio by the position its samples carry,
exactly as the C++ tests check them; lifetimes, threads and errors."""
import gc
import os
import shutil
import sys
import threading
import tracemalloc
from fractions import Fraction

import numpy
import pytest

import clipdec

MEDIA = os.environ.get("CLIPDEC_TEST_MEDIA", "build/media")


def media(name):
    return os.path.join(MEDIA, name)


def index_of(frame):
    """The index an RGBA picture shows: bar k (of 16 across) white when bit k is set."""
    row = frame.data[frame.height // 2]
    return sum(1 << k for k in range(16) if row[(2 * k + 1) * frame.width // 32][0] > 128)


def ramp(first, count, channels=2):
    n = numpy.arange(first, first + count, dtype=numpy.int64)[:, None] + 1000 * numpy.arange(channels)
    return (n % 65536 - 32768).astype(numpy.int16)


@pytest.mark.parametrize("name, rate, times", [
    ("h264_cfr.mp4", Fraction(25), [0, 1, Fraction(3, 2), "00:00:02.020", 3.96, "0:03.999"]),
    ("h264_23976.mp4", Fraction(24000, 1001), [0, Fraction(1001, 24000), 1.5, "00:00:02.9"]),
])
def test_frame_at_gives_the_frame_on_screen(name, rate, times):
    with clipdec.VideoDecoder(media(name)) as video:
        for t in times:
            frame = video.frame_at(t)
            expected = int(clipdec.to_time(t) * rate)
            assert index_of(frame) == expected, t
            assert frame.pts == Fraction(expected) / rate
            assert frame.data.shape == (240, 320, 4) and frame.data.dtype == numpy.uint8
        assert [index_of(f) for f in video.frames_at([1, 2])] == [int(rate), int(2 * rate)]
        yuv = video.frame_at(1, format="yuv420p", divider=2)
        assert [p.shape for p in yuv.data] == [(120, 160), (60, 80), (60, 80)]


@pytest.mark.parametrize("rate, format", [(48000, "s16"), (48000, "f32"), (44100, "s16")])
def test_samples_are_the_ramp_and_runs_continue(rate, format):
    with clipdec.AudioDecoder(media("pcm_s16.wav")) as audio:
        spans = [audio.samples(Fraction(k, 50), Fraction(k + 1, 50), rate=rate, format=format) for k in range(25)]
    assert all(len(s) == rate // 50 for s in spans)  # 20 ms each, no sample gained or lost
    if rate == 48000:
        whole = numpy.concatenate(spans)
        got = whole if format == "s16" else numpy.round(whole * 32768).astype(numpy.int16)
        assert numpy.array_equal(got, ramp(0, len(whole)))


def test_a_frame_outlives_its_decoder_and_nothing_leaks():
    video = clipdec.VideoDecoder(media("h264_cfr.mp4"))
    frame = video.frame_at(2)
    copy = frame.data.copy()
    video.close()
    del video
    gc.collect()
    assert index_of(frame) == 50 and numpy.array_equal(frame.data, copy)

    clipdec.mem_collection(0)
    handed_out = clipdec._clipdec.pool_stats()[1]
    tracemalloc.start()
    with clipdec.VideoDecoder(media("h264_cfr.mp4")) as video:
        for k in range(1000):
            video.frame_at(Fraction(k % 100, 25), divider=4)
    gc.collect()
    grown, _ = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    assert grown < 256 * 1024
    del frame
    gc.collect()
    assert clipdec._clipdec.pool_stats()[1] < handed_out  # the kept frame's block went back too


def test_blocking_calls_release_the_gil(tmp_path):
    # One long call on a thread; the main thread must run meanwhile.
    path = tmp_path / "ramp.flac"
    shutil.copy(media("ramp60.flac"), path)
    started = threading.Event()
    thread = threading.Thread(target=lambda: (started.set(), clipdec.waveform(path)))
    old = sys.getswitchinterval()
    sys.setswitchinterval(1.0)  # without a release, the worker would keep the GIL for its whole call
    try:
        thread.start()
        started.wait()
        spins = 0
        while thread.is_alive():
            spins += 1
    finally:
        sys.setswitchinterval(old)
    assert spins > 1000


def test_async_requests_call_back_and_a_raising_callback_is_reported():
    answers, reported, done = [], [], threading.Event()
    old_hook, sys.unraisablehook = sys.unraisablehook, lambda u: reported.append(u.exc_value)

    def fails(frame):
        raise RuntimeError("host callback failed")
    try:
        with clipdec.VideoDecoder(media("h264_cfr.mp4")) as video:
            video.frame_at_async(1, fails)
            video.frame_at_async(2, lambda f: (answers.append(index_of(f)), done.set()))
            assert done.wait(30)
    finally:
        sys.unraisablehook = old_hook
    assert answers == [50]
    assert all(isinstance(e, RuntimeError) for e in reported)


def closed_decoder():
    video = clipdec.VideoDecoder(media("h264_cfr.mp4"))
    video.close()
    return video


@pytest.mark.parametrize("call, error", [
    (lambda: clipdec.probe(media("missing.mp4")), OSError),  # clipdec.Error is one: hosts catch it as such
    (lambda: clipdec.AudioDecoder(media("h264_23976.mp4")), clipdec.Error),  # no audio stream
    (lambda: closed_decoder().frame_at(1), clipdec.Error),
    (lambda: clipdec.VideoDecoder(media("h264_cfr.mp4")).frame_at(1, format="bgr"), ValueError),
    (lambda: clipdec.VideoDecoder(media("h264_cfr.mp4")).frame_at(-1), ValueError),
    (lambda: setattr(clipdec.VideoDecoder(media("h264_cfr.mp4")), "speed", 9), ValueError),
    (lambda: clipdec.VideoDecoder(media("h264_cfr.mp4")).frame_at([1]), TypeError),
])
def test_errors_are_the_documented_exceptions(call, error):
    with pytest.raises(error):
        call()


def test_probe_speed_reverse_and_timeline_tools():
    movie = clipdec.probe(media("h264_cfr.mp4"))
    assert "h264_cfr.mp4" in repr(movie) and movie.duration == 4
    video_stream = movie.first("video")
    assert (video_stream.width, video_stream.height, video_stream.frame_rate) == (320, 240, 25)
    assert movie.first("audio").sample_rate == 48000
    with clipdec.VideoDecoder(video_stream, speed=2) as fast:
        assert index_of(fast.frame_at(1)) == 50
    with clipdec.VideoDecoder(media("h264_cfr.mp4"), reverse=True) as backwards:  # alone, so its cache starts empty
        assert index_of(backwards.frame_at(0)) == 99

    thumb = clipdec.thumbnail(media("h264_cfr.mp4"), at=2, size=(160, 0))
    assert index_of(thumb) == 50 and thumb.width == 160

    wave = clipdec.waveform(media("pcm_s16.wav"))
    assert (wave.buckets, wave.channels) == (400, 2) and wave.min.shape == (400, 2)
    assert wave.min[0, 0] == pytest.approx(-1.0) and wave.max[0, 0] == pytest.approx(-32289 / 32768)

    strip = clipdec.filmstrip(media("long_gop.mp4"), count=4, fast=True)
    assert [index_of(p.frame) for p in strip] == [0, 0, 0, 250]
    assert [p.asked for p in strip] == [Fraction(3, 2), Fraction(9, 2), Fraction(15, 2), Fraction(21, 2)]

    tone = ramp(0, 960)
    mixer = clipdec.Mixer(rate=48000, channels=2, format="s16")
    mixed = mixer.mix(0, Fraction(1, 50), [("a", tone, 1.0), ("b", tone, 0.5)])
    expected = numpy.clip(tone.astype(numpy.int32) + tone.astype(numpy.int32) * 64 // 128, -32768, 32767)
    assert mixed.shape == (960, 2) and numpy.array_equal(mixed, expected)
    assert clipdec.audio_peak(tone, format="s16") == 100
