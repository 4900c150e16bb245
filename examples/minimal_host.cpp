// A minimal host of clipdec: describe a movie, take the picture on screen at
// one second, and read the first 100 ms of its audio in two 50 ms spans.
//
//   minimal_host MOVIE
#include <clipdec/clipdec.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s MOVIE\n", argv[0]);
        return 2;
    }
    // Probed once; the description stays cached for the life of the process.
    const ff::MovieCtx* movie = ff::getMovieInfo(argv[1], nullptr);
    if (!movie) {
        std::fprintf(stderr, "cannot open %s\n", argv[1]);
        return 1;
    }
    std::printf("%s: %.3f s, %d video and %d audio streams\n", argv[1], movie->duration / 1e6, movie->nb_video,
                movie->nb_audio);

    if (movie->nb_video > 0) {
        ff::FFDecoder video;
        if (video.open(movie->streams[movie->video_indexes[0]])) {
            ff::RequireVideoFrame req;
            req.time = ff::Rational(1, 1);  // exact times: fractions of seconds
            req.format = ff::PF_RGBA;
            std::shared_ptr<ff::VFrameCtx> picture = video.getVideoFrame(req);
            if (picture)
                std::printf("picture at 1 s: %dx%d RGBA, shown from %.3f s\n", picture->width, picture->height,
                            picture->pts / 1e6);
        }
    }

    if (movie->nb_audio > 0) {
        ff::FFDecoder audio;
        if (audio.open(movie->streams[movie->audio_indexes[0]])) {
            ff::RequireAudioFrame req;
            req.format = ff::SF_S16;
            req.sample_rate = 48000;
            req.channels = 2;
            for (int k = 0; k < 2; ++k) {
                // Contiguous spans continue where the last one ended: no seek, no gap.
                req.range = ff::Range(ff::Rational(k, 20), ff::Rational(k + 1, 20));
                std::shared_ptr<ff::AFrameCtx> pcm = audio.getAudioFrame(req);
                if (pcm)
                    std::printf("audio %.2f-%.2f s: %d samples, peak %d of 100\n", req.range.begin.to_double(),
                                req.range.end.to_double(), pcm->nb_samples, ff::getAudioPeak(pcm, 100));
            }
        }
    }
    return 0;
}
