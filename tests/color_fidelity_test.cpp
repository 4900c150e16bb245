// Pictures as their sources show them: every matrix and range (also in YUV
// output), alpha, and fine chroma detail above 8 bits, over the colour media of
// scripts/gen_color_media.sh (whose patch table is repeated here).

#include <cmath>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "support.h"

using namespace ff;

namespace {

constexpr int kPatchRgb[16][3] = {
    {255, 0, 0},     {0, 255, 0},    {0, 0, 255},  {0, 255, 255}, {255, 0, 255}, {255, 255, 0},
    {230, 180, 150}, {198, 134, 66}, {141, 85, 36}, {0, 0, 0},     {24, 24, 24},  {64, 64, 64},
    {128, 128, 128}, {192, 192, 192}, {255, 255, 255}, {200, 100, 50}};
constexpr int kPatchAlpha[3] = {255, 128, 0};

enum class Content { Patches, AlphaPatches, Lines };

// File, content, the probe's pixel format and transfer characteristic (-1: not
// checked), and whether a YUV picture is checked as well.
const struct ColorCase { const char* file; Content content; int pix_fmt, trc; bool yuv = false; } kCases[] = {
    {"color_bt709.mp4", Content::Patches, -1, AVCOL_TRC_BT709, true},
    {"color_bt601.mp4", Content::Patches, -1, AVCOL_TRC_SMPTE170M},
    {"color_bt2020_10bit.mp4", Content::Patches, AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_SMPTE2084},
    {"color_full_h264.mp4", Content::Patches, AV_PIX_FMT_YUVJ420P, -1, true},
    {"color_full_vp9.webm", Content::Patches, -1, -1, true},
    {"color_full_hevc.mp4", Content::Patches, -1, -1},
    {"color_untagged_sd.mp4", Content::Patches, -1, AVCOL_TRC_UNSPECIFIED},
    {"color_untagged_hd.mp4", Content::Patches, -1, AVCOL_TRC_UNSPECIFIED},
    {"alpha_prores4444.mov", Content::AlphaPatches, -1, -1},
    {"alpha_png.mov", Content::AlphaPatches, -1, -1},
    {"alpha_qtrle.mov", Content::AlphaPatches, -1, -1},
    {"alpha_vp9.webm", Content::AlphaPatches, AV_PIX_FMT_YUVA420P, -1},
    {"lines_yuv444p10.mkv", Content::Lines, AV_PIX_FMT_YUV444P10LE, -1},
    {"lines_yuv422p10.mkv", Content::Lines, AV_PIX_FMT_YUV422P10LE, -1},
    {"lines_yuv420p12.mkv", Content::Lines, AV_PIX_FMT_YUV420P12LE, -1},
};

std::shared_ptr<VFrameCtx> picture_at(const StreamCtx* st, Rational t, PixelFormat format) {
    FFDecoder dec;
    return dec.open(st) ? dec.getVideoFrame(RequireVideoFrame{t, format, 1, nullptr}) : nullptr;
}

// Every patch centre within 4 levels of its RGB, alpha within 2.
void expect_patches(const VFrameCtx& p, bool with_alpha) {
    for (int i = 0; i < 16; ++i) {
        const int x = (2 * (i % 8) + 1) * p.width / 16;
        const int y = p.height * 9 / 16 + (2 * (i / 8) + 1) * p.height * 7 / 64;
        const uint8_t* px = p.data[0] + static_cast<size_t>(y) * p.linesize[0] + static_cast<size_t>(x) * 4;
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(px[c], kPatchRgb[i][c], 4) << "patch " << i << " channel " << c;
        EXPECT_NEAR(px[3], with_alpha ? kPatchAlpha[i % 3] : 255, 2) << "patch " << i << " alpha";
    }
}

// How close an RGBA picture's colour comes, in PSNR, to frame `index` of
// `file` decoded plainly with FFmpeg and converted carefully to RGBA: bicubic,
// accurate rounding, full chroma, the source's tagged matrix and range. 0
// when the file has no such frame.
double psnr_against_plain(const VFrameCtx& p, const std::string& file, int index) {
    UniqueAVFrame frame = make_frame();
    cli::PlainStream plain;
    bool found = plain.open(file.c_str(), -1);
    for (int k = 0; found && k <= index; ++k) found = plain.next(frame.get()) >= 0;
    if (!found) return 0;
    const AVFrame& f = *frame;
    std::vector<uint8_t> ref(static_cast<size_t>(f.width) * f.height * 4);
    uint8_t* dst[4] = {ref.data()};
    int dst_linesize[4] = {f.width * 4};
    const UniqueSwsContext sws(sws_getContext(f.width, f.height, static_cast<AVPixelFormat>(f.format), f.width,
                                              f.height, AV_PIX_FMT_RGBA,
                                              SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP,
                                              nullptr, nullptr, nullptr));
    const int* coefficients = sws_getCoefficients(f.colorspace);
    sws_setColorspaceDetails(sws.get(), coefficients, f.color_range == AVCOL_RANGE_JPEG, coefficients, 1, 0,
                             1 << 16, 1 << 16);
    sws_scale(sws.get(), f.data, f.linesize, 0, f.height, dst, dst_linesize);

    double sum = 0;
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x)
            for (int c = 0; c < 3; ++c) {
                const double d = p.data[0][y * p.linesize[0] + x * 4 + c] - ref[(y * p.width + x) * 4 + c];
                sum += d * d;
            }
    const double mse = sum / (3.0 * p.width * p.height);
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

}  // namespace

TEST(ColorFidelity, EverySourceLooksAsItsDescriptionSays) {
    for (const ColorCase& c : kCases) {
        SCOPED_TRACE(c.file);
        const StreamCtx* st = testsupport::stream_of(c.file, STREAM_VIDEO);
        ASSERT_NE(st, nullptr);
        EXPECT_TRUE(c.pix_fmt < 0 || st->pix_fmt == c.pix_fmt) << av_get_pix_fmt_name(static_cast<AVPixelFormat>(st->pix_fmt));
        EXPECT_TRUE(c.trc < 0 || st->color_trc == c.trc) << st->color_trc;
        EXPECT_EQ(st->field_order, AV_FIELD_PROGRESSIVE);
        // Frame 3 (of 5), identified by its bars as everywhere else.
        const std::shared_ptr<VFrameCtx> picture = picture_at(st, Rational(3, 25), PF_RGBA);
        ASSERT_EQ(testsupport::index_of(picture), 3);
        if (c.content == Content::Lines) {
            EXPECT_GE(psnr_against_plain(*picture, testmedia::path(c.file), 3), 38.0);
        } else {
            expect_patches(*picture, c.content == Content::AlphaPatches);
        }
        // YUV pictures keep the matrix in limited range, whatever range the
        // source used: grey 24 of the patches is luma 16 + 24 * 219 / 255.
        if (c.yuv) {
            const auto p = picture_at(st, Rational(1, 25), PF_YUV420P);
            ASSERT_TRUE(p && p->color_space == AVCOL_SPC_BT709 && p->color_range == AVCOL_RANGE_MPEG);
            const int x = 5 * p->width / 16, y = p->height * 9 / 16 + 3 * p->height * 7 / 64;  // patch 10
            EXPECT_NEAR(p->data[0][y * p->linesize[0] + x], 37, 2);
        }
    }
}
