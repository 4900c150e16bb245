#ifdef CLIPDEC_TOOL
#include "cli_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "ff_ptr.h"
#include "media.h"

extern char** environ;

namespace clitest {

namespace {

std::string read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

RunResult run_tool(const std::vector<std::string>& args, int timeout_seconds) {
    RunResult result;
    static int serial = 0;
    const std::string base = std::string(CLIPDEC_TEST_TMP) + "/tool_run_" + std::to_string(getpid()) + "_" +
                             std::to_string(++serial);
    const std::string out_path = base + ".out", err_path = base + ".err";

    std::vector<std::string> argv_text = {CLIPDEC_TOOL};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return result;

    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (status != -1 && WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    result.out = read_all(out_path);
    result.err = read_all(err_path);
    std::remove(out_path.c_str());
    std::remove(err_path.c_str());
    return result;
}

std::string scratch_dir(const std::string& name) {
    const std::string dir = std::string(CLIPDEC_TEST_TMP) + "/" + name;
    std::system(("rm -rf '" + dir + "'").c_str());
    mkdir(dir.c_str(), 0755);
    return dir;
}

Picture decode_picture(const std::string& path) {
    Picture picture;
    testmedia::PlainDecoding d;
    if (!d.open(path, AVMEDIA_TYPE_VIDEO)) return picture;
    d.each_frame([&](const AVFrame* frame) {
        picture.width = frame->width;
        picture.height = frame->height;
        picture.format = frame->format;
        picture.index = testmedia::frame_index(frame);
        picture.turned_index = testmedia::frame_index(frame, true);
        return false;
    });
    return picture;
}

Audio decode_audio(const std::string& path) {
    Audio audio;
    testmedia::PlainDecoding d;
    if (!d.open(path, AVMEDIA_TYPE_AUDIO)) return audio;
    audio.sample_rate = d.codec->sample_rate;
    audio.channels = d.codec->ch_layout.nb_channels;
    audio.codec = d.codec->codec->name;
    d.each_frame([&](const AVFrame* frame) {
        audio.samples += frame->nb_samples;
        // Packed PCM: one plane holds every channel.
        const int bytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format)) * frame->nb_samples *
                          audio.channels;
        if (!av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)))
            audio.data.insert(audio.data.end(), frame->data[0], frame->data[0] + bytes);
        return true;
    });
    return audio;
}

}  // namespace clitest
#endif  // CLIPDEC_TOOL
