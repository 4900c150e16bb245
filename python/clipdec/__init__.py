"""clipdec: exact pictures and audio from media files, as NumPy arrays.

Pictures at any exact time, audio in exactly the spans asked for, at any rate
and speed, decoded by the clipdec library (FFmpeg underneath) and handed over
as NumPy arrays that view the library's own memory.

    import clipdec
    movie = clipdec.probe("clip.mp4")
    with clipdec.VideoDecoder(movie.path) as video:
        frame = video.frame_at("00:00:01.500")      # the picture on screen then
        rgba = frame.data                           # H x W x 4 uint8
    with clipdec.AudioDecoder("clip.mp4") as audio:
        pcm = audio.samples(0, 1, rate=48000, channels=2)   # (48000, 2) float32

Times are int or float seconds, fractions.Fraction, or "HH:MM:SS.mmm" text.
Every blocking call releases the GIL.
"""
import errno
import math
import os
from fractions import Fraction

from . import _clipdec

__all__ = [
    "Error", "Cancel", "Stream", "Movie", "Frame", "VideoDecoder", "AudioDecoder", "probe", "thumbnail",
    "waveform", "Waveform", "filmstrip", "StripPicture", "Mixer", "audio_peak", "mem_collection", "to_time",
]


class Error(OSError):
    """A file that cannot be opened or decoded, or a decoder that is closed."""


class Cancel:
    """A flag that cuts long work (waveforms, filmstrips) short when set."""

    def __init__(self):
        self._flag = _clipdec.CancelFlag()

    def set(self):
        self._flag.set()

    def clear(self):
        self._flag.clear()

    @property
    def is_set(self):
        return self._flag.is_set


# ---------------------------------------------------------------- times

def to_time(t):
    """Seconds as an exact Fraction from an int, a float, a Fraction or text
    ("12.5", "1001/30000", "MM:SS" or "HH:MM:SS.mmm"); never negative."""
    if isinstance(t, bool):
        raise TypeError("a time cannot be a bool")
    if isinstance(t, Fraction):
        value = t
    elif isinstance(t, int):
        value = Fraction(t)
    elif isinstance(t, float):
        if not math.isfinite(t):
            raise ValueError("a time must be finite, not %r" % t)
        value = Fraction(t).limit_denominator(1_000_000)
    elif isinstance(t, str):
        value = _parse_time(t)
    else:
        raise TypeError("a time is an int, float, Fraction or 'HH:MM:SS.mmm', not %s" % type(t).__name__)
    if value < 0:
        raise ValueError("a time cannot be negative: %s" % t)
    return value


def _parse_time(text):
    parts = text.strip().split(":")
    if len(parts) > 3 or not all(parts):
        raise ValueError("not a time: %r" % text)
    try:
        seconds = Fraction(parts[-1])
        minutes = int(parts[-2]) if len(parts) > 1 else 0
        hours = int(parts[-3]) if len(parts) > 2 else 0
    except ValueError:
        raise ValueError("not a time: %r" % text) from None
    if len(parts) > 1 and not 0 <= seconds < 60 or minutes < 0 or hours < 0:
        raise ValueError("not a time: %r" % text)
    return hours * 3600 + minutes * 60 + seconds


def _pair(t):
    value = to_time(t)
    return value.numerator, value.denominator


def _exact_time(microseconds, stream):
    """A picture's time (whole microseconds) back on its stream's time base,
    where that base is no finer than a microsecond, from the stream's start."""
    if stream is None or not stream.time_base:
        return microseconds
    start = stream.start or 0
    if stream.time_base >= Fraction(1, 1_000_000):
        microseconds = round(microseconds / stream.time_base) * stream.time_base
    return microseconds - start


def _seconds(ts, time_base):
    """A stream timestamp as seconds, or None when unknown."""
    return None if ts == _NO_PTS else Fraction(ts) * time_base


_NO_PTS = -(2 ** 63)
_TYPES = {0: "video", 1: "audio", 2: "subtitle"}
_PIXEL_FORMATS = {0: "yuv420p", 2: "rgb24", 3: "bgr24", 4: "yuv422p", 5: "yuv444p", 8: "gray", 12: "yuvj420p",
                  23: "nv12", 26: "argb", 27: "rgba", 28: "abgr", 29: "bgra", 33: "yuva420p", 62: "yuv420p10le",
                  64: "yuv422p10le", 68: "yuv444p10le"}


# ---------------------------------------------------------------- movies

class Stream:
    """One stream of a probed movie."""

    def __init__(self, record):
        self._record = record
        self.index = record.index
        self.type = _TYPES.get(record.type, "unknown")
        self.time_base = Fraction(*record.time_base) if record.time_base[1] else None
        tb = self.time_base or Fraction(1)
        self.start = _seconds(record.start_time, tb)
        self.duration = _seconds(record.duration, tb)
        self.width, self.height = record.width, record.height
        self.pixel_format = _PIXEL_FORMATS.get(record.pix_fmt, record.pix_fmt if record.pix_fmt >= 0 else None)
        num, den = record.frame_rate
        self.frame_rate = Fraction(num, den) if num > 0 and den > 0 else None
        self.rotation = record.rotation
        self.sample_rate, self.channels, self.layout = record.sample_rate, record.channels, record.channel_layout
        self.still_image = record.still_image
        self.color = {"space": record.color_space, "range": record.color_range,
                      "primaries": record.color_primaries, "trc": record.color_trc}

    def __repr__(self):
        if self.type == "video":
            detail = "%dx%d %s, %s fps" % (self.width, self.height, self.pixel_format,
                                          float(self.frame_rate) if self.frame_rate else "?")
        elif self.type == "audio":
            detail = "%d Hz, %d channels" % (self.sample_rate, self.channels)
        else:
            detail = "subtitles"
        duration = "%.3f s" % self.duration if self.duration is not None else "unknown length"
        return "<clipdec.Stream #%d %s: %s, %s>" % (self.index, self.type, detail, duration)


class Movie:
    """What clipdec.probe learnt of a file: its duration and its streams."""

    def __init__(self, record):
        self._record = record
        self.path = record.path
        self.duration = Fraction(record.duration_us, 1_000_000) if record.duration_us != _NO_PTS else None
        self.start = Fraction(record.start_us, 1_000_000) if record.start_us != _NO_PTS else None
        self.bit_rate = record.bit_rate
        self.streams = [Stream(s) for s in record.streams]

    def first(self, kind):
        """The first stream of `kind` ("video", "audio", "subtitle"), or None."""
        return next((s for s in self.streams if s.type == kind), None)

    def __repr__(self):
        duration = "%.3f s" % self.duration if self.duration is not None else "unknown length"
        return "<clipdec.Movie %r, %s, %d streams>" % (self.path, duration, len(self.streams))


def probe(path):
    """The description of the file at `path` (a Movie); raises clipdec.Error
    when it cannot be opened."""
    path = os.fspath(path)
    record = _clipdec.probe(path)
    if record is None:
        raise Error(errno.ENOENT if not os.path.exists(path) else errno.EINVAL,
                    "cannot open %s (missing, unreadable or not a movie)" % path, path)
    return Movie(record)


# ---------------------------------------------------------------- pictures

class Frame:
    """A decoded picture. `data` views the library's pooled memory without a
    copy (H x W x 4 for RGBA; the planes for YUV 4:2:0 and NV12) and keeps it
    alive after the decoder is gone; `pts` is its time in seconds from the
    stream's start, exact in the stream's time base."""

    def __init__(self, picture, format, stream=None):
        self._picture = picture
        self.format = format
        planes = picture.planes
        self.data = planes[0] if format == "rgba" else tuple(planes)
        self.pts = _exact_time(Fraction(picture.pts_us, 1_000_000), stream)
        self.width, self.height = picture.width, picture.height

    def __repr__(self):
        return "<clipdec.Frame %dx%d %s at %s s>" % (self.width, self.height, self.format, float(self.pts))


class _Decoder:
    _kind = None

    def __init__(self, source, *, index=None, speed=1.0, filters=None):
        movie = probe(source) if not isinstance(source, Stream) else None
        if isinstance(source, Stream):
            self.stream = source
        elif index is not None:
            self.stream = next((s for s in movie.streams if s.index == index), None)
        else:
            self.stream = movie.first(self._kind)
        if self.stream is None or self.stream.type != self._kind:
            raise Error(errno.EINVAL, "no %s stream to decode in %s" % (self._kind, getattr(movie, "path", source)))
        self._dec = _clipdec.Decoder()
        if not self._dec.open(self.stream._record):
            raise Error(errno.EINVAL, "cannot decode the %s stream #%d" % (self._kind, self.stream.index))
        self._filters = filters
        if speed != 1.0:
            self.speed = speed
        if filters:
            self.filters = filters

    def close(self):
        """Ends running work and releases the decoder; later calls raise clipdec.Error."""
        self._dec.close()

    @property
    def closed(self):
        return not self._dec.is_open

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def _check(self):
        if self.closed:
            raise Error(errno.EBADF, "the decoder is closed")

    @property
    def speed(self):
        return self._dec.speed

    @speed.setter
    def speed(self, value):
        self._check()
        if not self._dec.set_speed(float(value)):
            raise ValueError("speed must lie between 0.5 and 3.0, not %r" % value)

    @property
    def filters(self):
        return self._filters

    @filters.setter
    def filters(self, text):
        self._check()
        if not self._dec.set_filters(text or ""):
            raise ValueError("cannot build the filters %r" % text)
        self._filters = text


class VideoDecoder(_Decoder):
    """Pictures of a video stream at exact times, optionally at another speed
    or played backwards."""

    _kind = "video"

    def __init__(self, source, *, index=None, speed=1.0, reverse=False, filters=None):
        super().__init__(source, index=index, speed=speed, filters=filters)
        self._reverse = False
        self.reverse = reverse

    @property
    def reverse(self):
        return self._reverse

    @reverse.setter
    def reverse(self, on):
        self._check()
        self._dec.set_reverse(bool(on))
        self._reverse = bool(on)

    def frame_at(self, t, format="rgba", divider=1):
        """The picture on screen at time `t`; None when the stream has none."""
        self._check()
        num, den = _pair(t)
        picture = self._dec.picture(num, den, format, int(divider))
        return Frame(picture, format, self.stream) if picture is not None else None

    def frames_at(self, times, format="rgba", divider=1):
        """frame_at for each time, in order."""
        return [self.frame_at(t, format, divider) for t in times]

    def frame_at_async(self, t, callback, format="rgba", divider=1):
        """Queues the request and returns at once; `callback(frame)` runs later
        on the decoder's own thread (with the GIL). A newer request replaces
        one still waiting; a request that finds no picture calls nothing. What
        the callback raises is reported, not fatal."""
        self._check()
        num, den = _pair(t)
        stream = self.stream
        self._dec.picture_async(num, den, format, int(divider), lambda p: callback(Frame(p, format, stream)))


class AudioDecoder(_Decoder):
    """Exactly the samples of any span of an audio stream, at any rate."""

    _kind = "audio"

    def samples(self, begin, end, rate=48000, channels=2, format="f32"):
        """An (n, channels) array of the span [begin, end) at `rate`; spans
        that follow one another continue the run without a gap or overlap."""
        self._check()
        (bn, bd), (en, ed) = _pair(begin), _pair(end)
        if Fraction(en, ed) < Fraction(bn, bd):
            raise ValueError("the span ends before it begins")
        array = self._dec.samples(bn, bd, en, ed, int(rate), int(channels), format)
        if array is None:
            import numpy
            return numpy.zeros((0, channels), dtype={"f32": "float32", "s16": "int16", "s32": "int32",
                                                     "u8": "uint8"}[format])
        return array


# ---------------------------------------------------------------- timeline tools

def thumbnail(path, at=None, ratio=0.5, size=(0, 0), format="rgba", upright=False):
    """One picture of a movie (at time `at`, else at `ratio` of its duration),
    shrunk by a whole divider to about `size` (0: no limit on that side)."""
    picture = _clipdec.thumbnail(os.fspath(path), None if at is None else _pair(at), float(ratio), int(size[0]),
                                 int(size[1]), format, bool(upright))
    if picture is None:
        raise Error(errno.EINVAL, "no picture in %s" % path)
    return Frame(picture, format)


class Waveform:
    """A whole stream's waveform: min, max and rms are (buckets, channels)
    float32 arrays in full scale (+-1.0)."""

    def __init__(self, d):
        self.sample_rate, self.channels, self.samples = d["sample_rate"], d["channels"], d["samples"]
        self.bucket = Fraction(*d["bucket"])
        self.min, self.max, self.rms = d["min"], d["max"], d["rms"]

    @property
    def buckets(self):
        return len(self.min)

    def __repr__(self):
        return "<clipdec.Waveform %d buckets of %s s, %d channels at %d Hz>" % (
            self.buckets, self.bucket, self.channels, self.sample_rate)


def waveform(path, bucket=Fraction(1, 100), stream=None, cancel=None, progress=None):
    """The minimum, maximum and RMS per channel over buckets of `bucket`
    seconds of a whole audio stream (the best one unless `stream` names its
    index), decoded once at its own rate and kept in a cache. `progress(f)`
    hears the fraction done; None when cancelled."""
    num, den = _pair(bucket)
    d = _clipdec.overview(os.fspath(path), -1 if stream is None else int(stream), num, den,
                          cancel._flag if cancel is not None else None, progress)
    if d is None:
        if cancel is not None and cancel.is_set:
            return None
        raise Error(errno.EINVAL, "no audio to measure in %s" % path)
    return Waveform(d)


class StripPicture:
    """A picture of a filmstrip: the Frame, the time asked for, the time it shows."""

    def __init__(self, frame, asked, shown):
        self.frame, self.asked, self.shown = frame, asked, shown

    def __repr__(self):
        return "<clipdec.StripPicture asked %.3f s, shows %.3f s>" % (self.asked, self.shown)


def filmstrip(path, count=10, size=(240, 0), fast=False, format="rgba", cancel=None):
    """`count` pictures evenly spread over the first video stream, in time
    order: exact (the picture on screen at each time) or `fast` (the key
    frame at or before each time)."""
    strip = _clipdec.filmstrip(os.fspath(path), int(count), int(size[0]), int(size[1]), format, bool(fast),
                               cancel._flag if cancel is not None else None)
    if not strip and not (cancel is not None and cancel.is_set) and count > 0:
        raise Error(errno.EINVAL, "no pictures in %s" % path)
    return [StripPicture(Frame(p, format), Fraction(*asked), Fraction(*shown)) for p, asked, shown in strip]


class Mixer:
    """Mixes sources' samples, span by span, into one buffer (interleaved
    `format` at `rate` with `channels`)."""

    def __init__(self, rate=48000, channels=2, format="f32"):
        self.rate, self.channels, self.format = rate, channels, format
        self._mixer = _clipdec.Mixer(rate, channels, format)

    def mix(self, begin, end, sources):
        """The span [begin, end) of every (source, samples, volume) in
        `sources` mixed: `source` is any object naming the source across
        spans, `volume` 1.0 is unity."""
        (bn, bd), (en, ed) = _pair(begin), _pair(end)
        self._mixer.begin(bn, bd, en, ed)
        for source, samples, volume in sources:
            self._mixer.write(source, samples, int(round(float(volume) * 128)))
        return self._mixer.end(self.channels)


def audio_peak(samples, format="f32", scale=100):
    """The peak level of interleaved `samples` on the scale 0 .. `scale`."""
    return _clipdec.peak(samples, format, int(scale))


def mem_collection(ms=0):
    """Gives back to the system the pooled memory idle for more than `ms` milliseconds (0: all)."""
    _clipdec.mem_collection(int(ms))
