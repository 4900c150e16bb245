// Shared by the engine tests: the frame a stream should give for a timestamp,
// predicted from one plain sequential decode of the same file.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "ffdecoder.h"
#include "media.h"
#include "movie_info.h"

namespace enginetest {

struct VideoUnderTest {
    std::string name;
    const ff::StreamCtx* stream = nullptr;
    std::vector<testmedia::RefFrame> reference;  // in presentation order
};

inline VideoUnderTest load_video(const char* name) {
    VideoUnderTest v;
    v.name = name;
    ff::MovieCtx* mv = ff::FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv || mv->nb_video < 1) return v;
    v.stream = mv->streams[mv->video_indexes[0]];
    v.reference = testmedia::reference_decode(testmedia::path(name), v.stream->index);
    std::sort(v.reference.begin(), v.reference.end(), [](const auto& a, const auto& b) { return a.pts < b.pts; });
    return v;
}

// The frame on screen at t: the last one at or before t; before the first,
// the first.
inline const testmedia::RefFrame& expect_down(const VideoUnderTest& v, long long t) {
    auto it = std::upper_bound(v.reference.begin(), v.reference.end(), t,
                               [](long long value, const testmedia::RefFrame& f) { return value < f.pts; });
    return it == v.reference.begin() ? v.reference.front() : *std::prev(it);
}

// The first frame strictly after t; at the end, the last one.
inline const testmedia::RefFrame& expect_next(const VideoUnderTest& v, long long t) {
    auto it = std::upper_bound(v.reference.begin(), v.reference.end(), t,
                               [](long long value, const testmedia::RefFrame& f) { return value < f.pts; });
    return it == v.reference.end() ? v.reference.back() : *it;
}

}  // namespace enginetest
