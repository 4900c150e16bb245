// clipdec: the command-line host of the library, built on its public
// interface only. Each command lives in its own cmd_*.cpp.
#include <clipdec/clipdec.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli_args.h"
#include "commands.h"

namespace {

// ---- the host table: how this program receives the library's messages

bool g_verbose = false;

int host_write_log(int level, const char* tag, const char* file, int line, const char* format, va_list args) {
    if (!g_verbose) return 0;
    std::fprintf(cli::diagnostics(), "[%d %s %s:%d] ", level, tag, file, line);
    const int written = std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    return written;
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

struct Command {
    const char* name;
    int (*run)(const cli::Args&);
    const char* summary;
};

const Command kCommands[] = {
    {"probe", cli::cmd_probe, "describe movies and their streams (--json for machines)"},
    {"thumb", cli::cmd_thumb, "one picture of a movie as PNG"},
    {"frames", cli::cmd_frames, "a picture sequence as PNG files (speed, reverse, async)"},
    {"audio", cli::cmd_audio, "export audio through 20 ms requests as WAV"},
    {"mix", cli::cmd_mix, "mix audio sources on a timeline, with a peak meter"},
    {"waveform", cli::cmd_waveform, "the waveform of an audio stream as PNG or JSON"},
    {"filmstrip", cli::cmd_filmstrip, "pictures spread over a video as one contact sheet"},
    {"bench", cli::cmd_bench, "the library's speed next to plain FFmpeg on a file"},
    {"info", cli::cmd_info, "the library's clock, temporary directory and device types"},
    {"time", cli::cmd_time, "a time as a stream timestamp and back"},
    {"md5", cli::cmd_md5, "MD5 digests and content identifiers of files"},
    {"pool", cli::cmd_pool, "allocate, reuse and collect picture-sized pool blocks"},
};

void print_usage(FILE* out) {
    std::fprintf(out, "usage: clipdec [--verbose] COMMAND [ARGS]   (clipdec COMMAND --help for its options)\n\n"
                      "commands:\n");
    for (const Command& c : kCommands) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out,
                 "\n"
                 "Times are seconds (12.5), fractions (1001/30000) or HH:MM:SS.mmm.\n"
                 "--verbose shows the library's log lines on standard error.\n"
                 "\n"
                 "exit codes: 0 success, 1 an input cannot be read or decoded, 2 bad\n"
                 "arguments, 3 an output cannot be written\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<const char*> args;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--verbose")) g_verbose = true;
        else args.push_back(argv[i]);
    }
    publish_host_table();
    cli::hide_library_output(g_verbose);
    if (args.empty()) {
        std::fprintf(cli::diagnostics(), "clipdec: expected a COMMAND (try clipdec --help)\n");
        return cli::kExitUsage;
    }
    if (!std::strcmp(args[0], "--help") || !std::strcmp(args[0], "-h")) {
        print_usage(stdout);
        return cli::kExitOk;
    }
    const std::string name = args[0];
    for (const Command& c : kCommands) {
        if (name != c.name) continue;
        try {
            return c.run(cli::Args(args.begin() + 1, args.end()));
        } catch (const cli::Failure& failure) {
            std::fprintf(cli::diagnostics(), "clipdec %s: %s\n", c.name, failure.message.c_str());
            return failure.code;
        } catch (const std::exception& e) {
            std::fprintf(cli::diagnostics(), "clipdec %s: %s\n", c.name, e.what());
            return cli::kExitInput;
        }
    }
    std::fprintf(cli::diagnostics(), "clipdec: unknown command '%s' (try clipdec --help)\n", name.c_str());
    return cli::kExitUsage;
}
