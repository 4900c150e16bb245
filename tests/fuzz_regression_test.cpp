// Replays the inputs the fuzz targets once crashed on (tests/fuzz/regressions)
// through the same drivers: each must now pass without a sanitizer report.
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_drivers.h"
#include "media.h"
#include "watchdog.h"

namespace {

std::vector<std::string> inputs_of(const std::string& kind) {
    const std::string dir = std::string(CLIPDEC_FUZZ_REGRESSIONS) + "/" + kind;
    std::vector<std::string> files;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d))
            if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    return files;
}

std::vector<uint8_t> bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(FuzzRegression, EveryFormerCrashNowPasses) {
    testsupport::Watchdog watchdog("fuzz regressions", std::chrono::seconds(300));
    testmedia::LogCapture quiet;
    for (const std::string& path : inputs_of("movie")) {
        SCOPED_TRACE(path);
        const std::vector<uint8_t> data = bytes_of(path);
        fuzzdrive::movie_bytes(data.data(), data.size());
    }
    for (const std::string& path : inputs_of("pcm")) {
        SCOPED_TRACE(path);
        const std::vector<uint8_t> data = bytes_of(path);
        fuzzdrive::pcm_bytes(data.data(), data.size());
    }
    // The drivers also take what is too short to mean anything.
    const uint8_t tiny[2] = {9, 9};
    fuzzdrive::pcm_bytes(tiny, sizeof tiny);
    fuzzdrive::movie_bytes(tiny, 0);
}

}  // namespace
