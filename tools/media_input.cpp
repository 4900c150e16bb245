#include "media_input.h"

#include "cli_args.h"

namespace cli {

const ff::MovieCtx& probe_or_fail(const std::string& path) {
    const ff::MovieCtx* movie = ff::getMovieInfo(path.c_str(), nullptr);
    if (!movie) fail(kExitInput, "cannot open %s (missing, unreadable or not a movie)", path.c_str());
    return *movie;
}

const ff::StreamCtx& open_first_stream(const std::string& path, const ff::MovieCtx& movie, ff::StreamType type,
                                       ff::FFDecoder& decoder) {
    const int8_t* positions = type == ff::STREAM_VIDEO ? movie.video_indexes : movie.audio_indexes;
    const int count = type == ff::STREAM_VIDEO ? movie.nb_video : movie.nb_audio;
    for (int i = 0; i < count && i < ff::kMaxStreamsPerType; ++i) {
        const int position = positions[i];
        if (position < 0 || position >= movie.nb_streams || !movie.streams[position]) continue;
        if (decoder.open(movie.streams[position])) return *movie.streams[position];
    }
    const char* kind = type == ff::STREAM_VIDEO ? "video" : "audio";
    if (count <= 0) fail(kExitInput, "%s has no %s stream", path.c_str(), kind);
    fail(kExitInput, "no %s stream of %s can be decoded", kind, path.c_str());
}

ff::Rational stream_duration(const ff::StreamCtx& stream) {
    if (stream.duration != ff::kNoPts && stream.duration > 0 && stream.time_base.den != 0)
        return ff::timestamp_to_time(stream.duration, stream.time_base);
    if (stream.movie && stream.movie->duration != ff::kNoPts && stream.movie->duration > 0)
        return ff::Rational(stream.movie->duration, 1000000);
    return ff::Rational(0, 0);
}

ff::Rational clip_duration(const ff::Rational& duration, double speed) {
    const long long hundredths = static_cast<long long>(speed * 100);
    if (duration.den == 0 || hundredths <= 0 || speed == 1.0) return duration;
    return duration * ff::Rational(100, hundredths);
}

void check_output_file(const std::string& path) {
    if (path.empty()) fail(kExitUsage, "an output is required (-o FILE)");
    if (fs::is_dir_exist(path.c_str())) fail(kExitOutput, "%s is a directory", path.c_str());
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    if (!fs::is_dir_exist(dir.c_str())) fail(kExitOutput, "directory %s does not exist", dir.c_str());
}

void make_output_dir(const std::string& dir) {
    if (dir.empty()) fail(kExitUsage, "an output directory is required (-o DIR)");
    if (fs::is_dir_exist(dir.c_str())) return;
    // make_dir creates one level; walk the path so that nested outputs work.
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        if (!fs::is_dir_exist(part.c_str()) && !fs::make_dir(part.c_str(), 0755))
            fail(kExitOutput, "cannot create directory %s", part.c_str());
        if (slash == std::string::npos) break;
    }
}

}  // namespace cli
