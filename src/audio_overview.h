// The waveform of a whole audio stream, as an editor draws it under a clip:
// per channel, the minimum, maximum and RMS of the samples in consecutive
// buckets of a fixed duration, in float full scale (+-1.0).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "clipdec_export.h"
#include "rational.h"

namespace ff {

struct AudioOverview {
    int sampleRate = 0;    // the stream's own rate: nothing is resampled
    int channels = 0;
    Rational bucket;       // the duration each bucket covers, in seconds
    long long samples = 0; // samples per channel the stream decoded to
    int buckets = 0;       // ceil(samples / bucket samples)
    // Bucket k, channel c at k * channels + c. Bucket k covers the samples
    // [round(k * bucket * rate), round((k + 1) * bucket * rate)), cut so that
    // nothing drifts over a long stream; the last one ends with the stream.
    std::vector<float> min;
    std::vector<float> max;
    std::vector<float> rms;

    long long bucketStart(int k) const;  // the first sample of bucket k
};

// The overview of audio stream `stream` (its container index; -1: the file's
// best audio stream) of the file at `path`, with buckets of `bucket` seconds
// (e.g. {1, 100}). Decodes the stream once from start to end; `progress`,
// when given, hears the fraction done (0 to 1) now and then; a raised
// `cancel` ends the work with an empty answer. Answers are kept in a small
// cache keyed by path, stream, bucket and the file's size and modification
// time, so asking again costs nothing. Empty for a file that cannot be read,
// a stream that is not audio, or a bucket that is not positive.
CLIPDEC_API std::shared_ptr<const AudioOverview> getAudioOverview(const char* path, int stream,
                                                                  const Rational& bucket,
                                                                  std::atomic<bool>* cancel = nullptr,
                                                                  const std::function<void(double)>& progress = {});

}  // namespace ff
