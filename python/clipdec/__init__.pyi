from fractions import Fraction
from os import PathLike
from typing import Callable, Iterable, Optional, Sequence, Tuple, Union

import numpy

Time = Union[int, float, Fraction, str]
Path = Union[str, PathLike]

class Error(OSError): ...

class Cancel:
    def set(self) -> None: ...
    def clear(self) -> None: ...
    @property
    def is_set(self) -> bool: ...

def to_time(t: Time) -> Fraction: ...

class Stream:
    index: int
    type: str
    time_base: Optional[Fraction]
    start: Optional[Fraction]
    duration: Optional[Fraction]
    width: int
    height: int
    pixel_format: Union[str, int, None]
    frame_rate: Optional[Fraction]
    rotation: float
    sample_rate: int
    channels: int
    layout: int
    still_image: bool
    color: dict

class Movie:
    path: str
    duration: Optional[Fraction]
    start: Optional[Fraction]
    bit_rate: int
    streams: list[Stream]
    def first(self, kind: str) -> Optional[Stream]: ...

def probe(path: Path) -> Movie: ...

class Frame:
    format: str
    data: Union[numpy.ndarray, Tuple[numpy.ndarray, ...]]
    pts: Fraction
    width: int
    height: int

class VideoDecoder:
    stream: Stream
    speed: float
    filters: Optional[str]
    reverse: bool
    def __init__(self, source: Union[Path, Stream], *, index: Optional[int] = ..., speed: float = ...,
                 reverse: bool = ..., filters: Optional[str] = ...) -> None: ...
    def __enter__(self) -> "VideoDecoder": ...
    def __exit__(self, *exc: object) -> bool: ...
    def close(self) -> None: ...
    @property
    def closed(self) -> bool: ...
    def frame_at(self, t: Time, format: str = ..., divider: int = ...) -> Optional[Frame]: ...
    def frames_at(self, times: Iterable[Time], format: str = ..., divider: int = ...) -> list[Optional[Frame]]: ...
    def frame_at_async(self, t: Time, callback: Callable[[Frame], None], format: str = ...,
                       divider: int = ...) -> None: ...

class AudioDecoder:
    stream: Stream
    speed: float
    filters: Optional[str]
    def __init__(self, source: Union[Path, Stream], *, index: Optional[int] = ..., speed: float = ...,
                 filters: Optional[str] = ...) -> None: ...
    def __enter__(self) -> "AudioDecoder": ...
    def __exit__(self, *exc: object) -> bool: ...
    def close(self) -> None: ...
    @property
    def closed(self) -> bool: ...
    def samples(self, begin: Time, end: Time, rate: int = ..., channels: int = ...,
                format: str = ...) -> numpy.ndarray: ...

def thumbnail(path: Path, at: Optional[Time] = ..., ratio: float = ..., size: Tuple[int, int] = ...,
              format: str = ..., upright: bool = ...) -> Frame: ...

class Waveform:
    sample_rate: int
    channels: int
    samples: int
    bucket: Fraction
    min: numpy.ndarray
    max: numpy.ndarray
    rms: numpy.ndarray
    @property
    def buckets(self) -> int: ...

def waveform(path: Path, bucket: Time = ..., stream: Optional[int] = ..., cancel: Optional[Cancel] = ...,
             progress: Optional[Callable[[float], None]] = ...) -> Optional[Waveform]: ...

class StripPicture:
    frame: Frame
    asked: Fraction
    shown: Fraction

def filmstrip(path: Path, count: int = ..., size: Tuple[int, int] = ..., fast: bool = ..., format: str = ...,
              cancel: Optional[Cancel] = ...) -> list[StripPicture]: ...

class Mixer:
    rate: int
    channels: int
    format: str
    def __init__(self, rate: int = ..., channels: int = ..., format: str = ...) -> None: ...
    def mix(self, begin: Time, end: Time, sources: Sequence[Tuple[object, numpy.ndarray, float]]) -> numpy.ndarray: ...

def audio_peak(samples: numpy.ndarray, format: str = ..., scale: int = ...) -> int: ...
def mem_collection(ms: int = ...) -> None: ...
