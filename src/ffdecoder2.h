// A decoder for clips played at another speed, backwards, or through the
// host's own FFmpeg filters. Clip times are mapped to stream times before the
// ordinary decoder runs: at speed s clip time t reads stream time t * s
// (s truncated to hundredths), and audio keeps its pitch through an "atempo"
// filter placed before the host's filters. Reverse play is for video only.
//
// The setters work on an opened decoder. They may be called from any thread,
// also while requests of the same decoder run: the filter is replaced between
// two requests, and a request reads the speed and direction once, when it
// starts.
#pragma once

#include <string>

#include "clipdec_export.h"
#include "ffdecoder.h"

namespace ff {

class FFDecoder2Private;

class CLIPDEC_API FFDecoder2 : public FFDecoder {
public:
    FFDecoder2();
    ~FFDecoder2() override;

    double speed() const;
    // Speeds from 0.5 to 3.0; anything else (not a number included) is
    // refused with false and changes nothing. True when the filter is in place.
    bool setSpeed(double s);
    void setRevert(bool on);
    // The host's filter text (null: none), combined with the speed's filter.
    // False when the filter cannot be built or the combined text would be
    // longer than 1023 characters (the text is stored all the same).
    bool setFilters(const char* f);
    // Installs `f` as the whole filter text, without speed and without storing it.
    bool pri_setFilters(const char* f);

    std::shared_ptr<VFrameCtx> pri_getVideoFrame(const RequireVideoFrame& req, int seq) override;
    std::shared_ptr<AFrameCtx> pri_getAudioFrame(const RequireAudioFrame& req, int seq) override;

private:
    // With req_mutex held.
    bool install_filter_text(const std::string& text);
    // Runs `change(stream type)` with req_mutex held when the decoder is open;
    // false otherwise.
    template <typename F>
    bool between_requests(const char* where, F change);
    FFDecoder2Private* d2;
};

// The filter text for a stream: "atempo=<speed>" for audio at a speed other
// than 1.0, then the host's text unless it is empty, "anull" or "null". Empty
// when nothing is to be filtered. Longer than 1023 characters means too long.
CLIPDEC_API std::string combineFilters(StreamType type, const std::string& user, double speed);

}  // namespace ff
