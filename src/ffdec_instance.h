// One demuxer opened on one file plus one decoder for one of its streams: the
// thinnest layer over FFmpeg. It reads packets of its stream, feeds the
// decoder, hands out decoded frames (always in system memory: hardware frames
// are transferred on receipt) and seeks. No lock: one thread at a time uses
// an instance; several instances on one file are independent.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "ff_ptr.h"

namespace ff {

class Instance {
public:
    Instance() = default;
    ~Instance();
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    // Opens `path` and the decoder of the container's stream `stream_index`.
    // On failure the parts already opened stay until close() or destruction.
    bool open(const char* path, int stream_index);
    // The same on a container already opened, with its stream information
    // read (the probe's), which the instance takes over.
    bool open(UniqueAVFormatInput container, int stream_index);
    bool is_open() const { return fmt_ctx != nullptr; }
    // Frees the options, the decoder and the input; `stream` is left as it was.
    void close();

    // The next decoded frame: >= 0 with `frame` filled, AVERROR_EOF once the
    // decoder is drained (until a flushing seek), another negative code on
    // failure. `pkt` is scratch space owned by the caller.
    int get_frame(AVPacket* pkt, AVFrame* frame);
    // The next undecoded packet of the stream (av_read_frame's result).
    int get_packet(AVPacket* pkt);
    // The next subtitle of the stream: >= 0 when one was decoded, -1 when the
    // packet decoded to none, or the negative read error.
    int get_subtitle(AVPacket* pkt, AVSubtitle* sub);
    uint8_t* get_subtitle_header();
    // Seeks to `ts` (stream time base) or the key frame before it; `flush`
    // drops the decoder's buffered frames.
    bool seek(long long ts, bool flush);
    // Until a packet at or after `pts` comes (stream time base), frames no
    // other frame refers to are not decoded at all: a run towards a target
    // whose earlier frames nobody wants decodes only what the later ones
    // need. Frames before `pts` may then be missing from the output. Ended by
    // a seek.
    void skip_unreferenced_before(long long pts);
    // Decodes key frames only (the rest is dropped unread by the decoder),
    // until switched off.
    void decode_key_frames_only(bool on);

    AVFormatContext* format_contex() const { return fmt_ctx; }
    AVStream* avstream() const { return stream; }
    AVCodecContext* codec_context() const { return codec_ctx; }

private:
    bool open_decoder(int stream_index);
    void apply_skip(long long packet_pts);
    int read_own_packet(AVPacket* pkt);

    AVFormatContext* fmt_ctx = nullptr;  // owned; non-null means open
    AVCodecContext* codec_ctx = nullptr; // owned, through the hardware layer
    AVStream* stream = nullptr;          // borrowed from fmt_ctx
    AVDictionary* opts = nullptr;        // owned; what avcodec_open2 left unused
    long long skip_before = AV_NOPTS_VALUE;  // see skip_unreferenced_before
    AVDiscard base_discard = AVDISCARD_DEFAULT;  // what is dropped outside such a run
};

}  // namespace ff
