// One pass of a host over a file through the public interface: probe, open
// every stream, pictures at several times (synchronous, asynchronous, other
// formats, speed, reverse, a filter), audio spans (contiguous, far, another
// rate, speed with a filter, metered and mixed), positioning, reopening, a
// thumbnail, a waveform, filmstrips, close. Used by the hostile-input tests and the fuzz targets: on
// any file it must answer without crashing, hanging or leaking.
#pragma once

#include <string>

namespace hostwalk {

struct Report {
    bool probed = false;
    int streams_opened = 0;
    int pictures = 0;      // non-empty picture answers
    int audio_spans = 0;   // non-empty audio answers
    bool thumbnail = false;
};

// `async_wait_ms` bounds each wait for an asynchronous answer, since a request
// that fails answers nothing.
Report walk(const std::string& path, int async_wait_ms = 3000);

}  // namespace hostwalk
