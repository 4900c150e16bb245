// Small commands that show the library's helpers: the clock, time
// conversion, MD5 digests and the buffer pool.
#include <clipdec/clipdec.h>

#include <cstdio>
#include <cstdlib>

#include "cli_args.h"
#include "commands.h"

namespace cli {

namespace {

bool print_help_if_asked(const Options& opts, const char* text) {
    if (opts.help()) std::fputs(text, stdout);
    return opts.help();
}

}  // namespace

int cmd_info(const Args& args) {
    const Options opts("info", args, {});
    if (print_help_if_asked(opts, "usage: clipdec info\n\nThe library's monotonic clock and temporary directory.\n"))
        return kExitOk;
    long long sec = 0, nsec = 0;
    bg::time::cpu_pts(&sec, &nsec);
    std::printf("monotonic clock: %lld.%09lld s (ms %lld, us %lld)\n", sec, nsec, bg::time::cpu_msec_pts(),
                bg::time::cpu_usec_pts());
    std::printf("temporary directory: %s\n", fs::tmp_dir().c_str());
    std::printf("hardware device types:");
    for (const char* name : ff::hw_enum_devices()) std::printf(" %s", name);
    std::printf("\n");
    return kExitOk;
}

int cmd_time(const Args& args) {
    const Options opts("time", args, {});
    if (print_help_if_asked(opts,
                            "usage: clipdec time TIME TIMEBASE\n\n"
                            "TIME (12.5, 1001/30000 or HH:MM:SS.mmm) as a timestamp of a stream with\n"
                            "time base TIMEBASE (such as 1/90000), and back to seconds.\n"))
        return kExitOk;
    ff::Rational seconds, base;
    if (opts.positional().size() != 2 || !parse_time(opts.positional()[0], seconds) ||
        !parse_time(opts.positional()[1], base) || base.num == 0)
        fail(kExitUsage, "expected TIME TIMEBASE, e.g. 1001/30000 1/90000");
    const long long ts = ff::time_to_timestamp(seconds, base);
    const ff::Rational back = ff::timestamp_to_time(ts, base);
    std::printf("%lld/%lld s in base %lld/%lld = timestamp %lld = %lld/%lld s\n", seconds.num, seconds.den, base.num,
                base.den, ts, back.num, back.den);
    return kExitOk;
}

int cmd_md5(const Args& args) {
    const Options opts("md5", args, {});
    if (print_help_if_asked(opts, "usage: clipdec md5 FILE...\n\nMD5 digest and content identifier of files.\n"))
        return kExitOk;
    if (opts.positional().empty()) fail(kExitUsage, "expected at least one FILE");
    int status = kExitOk;
    for (const std::string& path : opts.positional()) {
        const char* digest = zo::MD5File(path.c_str());
        if (!digest) {
            std::fprintf(diagnostics(), "clipdec md5: cannot read %s\n", path.c_str());
            status = kExitInput;
            continue;
        }
        std::printf("%s  %s  (id %s)\n", digest, path.c_str(), fs::file_unique_id(path.c_str()).c_str());
        std::free(const_cast<char*>(digest));
    }
    return status;
}

int cmd_pool(const Args& args) {
    const Options opts("pool", args, {});
    if (print_help_if_asked(opts, "usage: clipdec pool WxH\n\nAllocates, reuses and collects picture-sized pool blocks.\n"))
        return kExitOk;
    int width = 0, height = 0;
    if (opts.positional().size() != 1 || !parse_size(opts.positional()[0], width, height) || width == 0 ||
        height == 0)
        fail(kExitUsage, "expected WxH, e.g. 1920x1080");
    const int bytes = width * height * 4;
    void* first = ff::mem_malloc(bytes, 16);
    if (!first) fail(kExitInput, "allocation of %d bytes failed", bytes);
    ff::mem_free(first);
    void* again = ff::mem_malloc(bytes, 16);
    std::printf("RGBA %dx%d: %d bytes, 16-byte aligned: %s, reused after free: %s\n", width, height, bytes,
                bg::mempool::is_alignment(again, 16) ? "yes" : "no", again == first ? "yes" : "no");
    ff::mem_free(again);
    ff::mem_collection(0);
    std::printf("collected: free blocks returned to the system\n");
    return kExitOk;
}

}  // namespace cli
