// clipdec: the library's example host, built on its public interface only.
#include <clipdec/clipdec.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdint>
#include <string>
#include <vector>

namespace {

// ---- the host table: how this program receives the library's messages

bool g_verbose = false;

int host_write_log(int level, const char* tag, const char* file, int line, const char* format, va_list args) {
    if (!g_verbose) return 0;
    std::fprintf(stderr, "[%d %s %s:%d] ", level, tag, file, line);
    return std::vfprintf(stderr, format, args);
}
void* host_open_scope(const char*, const char*, int, const char*) { return nullptr; }
void host_close_scope(void*) {}
int host_get_int(const char*, int default_value) { return default_value; }
void host_unused() {}

using HostFn = void (*)();
HostFn g_host_table[12];

// The library reads the table's address from "cstyle-api" at its first
// message, so it is published before any library call.
void publish_host_table() {
    for (HostFn& fn : g_host_table) fn = host_unused;
    g_host_table[5] = reinterpret_cast<HostFn>(host_write_log);
    g_host_table[6] = reinterpret_cast<HostFn>(host_open_scope);
    g_host_table[7] = reinterpret_cast<HostFn>(host_close_scope);
    g_host_table[11] = reinterpret_cast<HostFn>(host_get_int);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(g_host_table));
    setenv("cstyle-api", address, 1);
}

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

void print_usage(FILE* out) {
    std::fprintf(out,
                 "usage: clipdec COMMAND [ARGS]\n"
                 "\n"
                 "commands:\n"
                 "  info                      the library's clock readings\n"
                 "  probe FILE...             describe movies and their streams\n"
                 "  time SECONDS TIMEBASE     seconds (12.5 or 1001/30000) as a stream timestamp and back\n"
                 "  md5 FILE...               MD5 digest and content identifier of files\n"
                 "  pool WxH                  allocate, reuse and collect picture-sized pool blocks\n"
                 "\n"
                 "options: --verbose  show the library's log lines on standard error\n"
                 "\n"
                 "exit codes: 0 success, 1 a file could not be read, 2 bad arguments\n");
}

// Accepts "N/D", an integer, or a decimal such as 12.5 (kept exact).
bool parse_rational(const char* text, ff::Rational& out) {
    char* end = nullptr;
    const long long whole = std::strtoll(text, &end, 10);
    if (end == text) return false;
    if (*end == '\0') {
        out = {whole, 1};
        return true;
    }
    if (*end == '/') {
        const char* den_text = end + 1;
        const long long den = std::strtoll(den_text, &end, 10);
        if (end == den_text || *end != '\0' || den == 0) return false;
        out = {whole, den};
        return true;
    }
    if (*end == '.') {
        const std::string digits(end + 1);
        if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos)
            return false;
        long long scale = 1;
        for (size_t i = 0; i < digits.size(); ++i) scale *= 10;
        const long long fraction = std::atoll(digits.c_str());
        const bool negative = text[0] == '-';
        out = {whole * scale + (negative ? -fraction : fraction), scale};
        out.reduce();
        return true;
    }
    return false;
}

int cmd_info() {
    long long sec = 0, nsec = 0;
    bg::time::cpu_pts(&sec, &nsec);
    std::printf("monotonic clock: %lld.%09lld s (ms %lld, us %lld)\n", sec, nsec,
                bg::time::cpu_msec_pts(), bg::time::cpu_usec_pts());
    std::printf("temporary directory: %s\n", fs::tmp_dir().c_str());
    return 0;
}

const char* stream_kind(ff::StreamType type) {
    switch (type) {
        case ff::STREAM_VIDEO: return "video";
        case ff::STREAM_AUDIO: return "audio";
        default: return "subtitle";
    }
}

std::string seconds_text(int64_t value, const ff::Rational& base) {
    if (value == ff::kNoPts) return "unknown";
    char text[64];
    std::snprintf(text, sizeof text, "%.3f s", ff::timestamp_to_time(value, base).to_double());
    return text;
}

void print_stream(const ff::StreamCtx& s) {
    std::printf("  stream %d: %s, time base %lld/%lld, start %s, duration %s\n", s.index, stream_kind(s.type),
                s.time_base.num, s.time_base.den, seconds_text(s.start_time, s.time_base).c_str(),
                seconds_text(s.duration, s.time_base).c_str());
    if (s.type == ff::STREAM_VIDEO) {
        std::printf("    %dx%d, pixel format %d, %lld/%lld fps, aspect %lld:%lld, rotation %.1f%s\n", s.width, s.height,
                    s.pix_fmt, s.frame_rate.num, s.frame_rate.den, s.sample_aspect_ratio.num,
                    s.sample_aspect_ratio.den, s.rotation, s.still_image ? ", still picture" : "");
    } else if (s.type == ff::STREAM_AUDIO) {
        std::printf("    %d Hz, %d channels (layout 0x%llx), sample format %d\n", s.sample_rate, s.channels,
                    static_cast<unsigned long long>(s.channel_layout), s.sample_fmt);
    } else {
        for (const ff::Subtitle& sub : s.subtitles)
            std::printf("    %.3f-%.3f s: %s\n", sub.start / 1e6, sub.end / 1e6, sub.text.c_str());
    }
}

int cmd_probe(const std::vector<const char*>& args) {
    if (args.empty()) {
        std::fprintf(stderr, "clipdec probe: expected at least one FILE\n");
        return kExitUsage;
    }
    int status = 0;
    for (const char* path : args) {
        const ff::MovieCtx* mv = ff::getMovieInfo(path, nullptr);
        if (!mv) {
            std::fprintf(stderr, "clipdec probe: cannot open %s\n", path);
            status = kExitFailure;
            continue;
        }
        const ff::Rational us(1, 1000000);
        std::printf("%s: duration %s, start %s, %lld bit/s, %d video, %d audio, %d subtitle\n", path,
                    seconds_text(mv->duration, us).c_str(), seconds_text(mv->start_time, us).c_str(),
                    static_cast<long long>(mv->bit_rate), mv->nb_video, mv->nb_audio, mv->nb_subtitle);
        for (int i = 0; i < mv->nb_streams; ++i) print_stream(*mv->streams[i]);
    }
    return status;
}

int cmd_time(const std::vector<const char*>& args) {
    ff::Rational seconds, base;
    if (args.size() != 2 || !parse_rational(args[0], seconds) || !parse_rational(args[1], base)) {
        std::fprintf(stderr, "clipdec time: expected SECONDS TIMEBASE, e.g. 1001/30000 1/90000\n");
        return kExitUsage;
    }
    const long long ts = ff::time_to_timestamp(seconds, base);
    const ff::Rational back = ff::timestamp_to_time(ts, base);
    std::printf("%lld/%lld s in base %lld/%lld = timestamp %lld = %lld/%lld s\n", seconds.num,
                seconds.den, base.num, base.den, ts, back.num, back.den);
    return 0;
}

int cmd_md5(const std::vector<const char*>& args) {
    if (args.empty()) {
        std::fprintf(stderr, "clipdec md5: expected at least one FILE\n");
        return kExitUsage;
    }
    int status = 0;
    for (const char* path : args) {
        const char* digest = zo::MD5File(path);
        if (!digest) {
            std::fprintf(stderr, "clipdec md5: cannot read %s\n", path);
            status = kExitFailure;
            continue;
        }
        std::printf("%s  %s  (id %s)\n", digest, path, fs::file_unique_id(path).c_str());
        std::free(const_cast<char*>(digest));
    }
    return status;
}

int cmd_pool(const std::vector<const char*>& args) {
    int width = 0, height = 0;
    if (args.size() != 1 || std::sscanf(args[0], "%dx%d", &width, &height) != 2 || width <= 0 ||
        height <= 0 || width > 16384 || height > 16384) {
        std::fprintf(stderr, "clipdec pool: expected WxH, e.g. 1920x1080\n");
        return kExitUsage;
    }
    const int bytes = width * height * 4;
    void* first = ff::mem_malloc(bytes, 16);
    if (!first) {
        std::fprintf(stderr, "clipdec pool: allocation of %d bytes failed\n", bytes);
        return kExitFailure;
    }
    ff::mem_free(first);
    void* again = ff::mem_malloc(bytes, 16);
    std::printf("RGBA %dx%d: %d bytes, 16-byte aligned: %s, reused after free: %s\n", width, height,
                bytes, bg::mempool::is_alignment(again, 16) ? "yes" : "no",
                again == first ? "yes" : "no");
    ff::mem_free(again);
    ff::mem_collection(0);
    std::printf("collected: free blocks returned to the system\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> kept;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && !std::strcmp(argv[i], "--verbose")) g_verbose = true;
        else kept.push_back(argv[i]);
    }
    argc = static_cast<int>(kept.size());
    argv = kept.data();
    publish_host_table();
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        print_usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? kExitUsage : 0;
    }
    const std::string command = argv[1];
    const std::vector<const char*> args(argv + 2, argv + argc);
    if (command == "info") return cmd_info();
    if (command == "probe") return cmd_probe(args);
    if (command == "time") return cmd_time(args);
    if (command == "md5") return cmd_md5(args);
    if (command == "pool") return cmd_pool(args);
    std::fprintf(stderr, "clipdec: unknown command '%s' (try --help)\n", command.c_str());
    return kExitUsage;
}
