// Running the command-line tool from tests, and reading its outputs back
// with FFmpeg.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace clitest {

struct RunResult {
    int exit_code = -1;   // -1 when the tool could not run or was killed
    std::string out;      // standard output
    std::string err;      // standard error
};

// Runs the tool with `args`, waiting at most `timeout_seconds`.
RunResult run_tool(const std::vector<std::string>& args, int timeout_seconds = 120);

// A scratch directory of the test binary's tree, emptied for each caller name.
std::string scratch_dir(const std::string& name);

struct Picture {
    int width = 0;
    int height = 0;
    int format = -1;   // FFmpeg pixel format
    int index = -1;    // the frame index the picture shows
    int turned_index = -1;  // the index it shows when turned a quarter counter-clockwise
};
// The first picture of an image or movie file; width 0 when it cannot be read.
Picture decode_picture(const std::string& path);

struct Audio {
    int sample_rate = 0;
    int channels = 0;
    std::string codec;          // FFmpeg codec name, such as "pcm_s16le"
    int64_t samples = 0;        // per channel
    std::vector<uint8_t> data;  // the interleaved samples as decoded
};
// Every sample of the first audio stream; sample_rate 0 when it cannot be read.
Audio decode_audio(const std::string& path);

}  // namespace clitest
