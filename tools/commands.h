// The tool's commands. Each takes the arguments after its name, prints its own
// --help, and returns an exit code or throws cli::Failure.
#pragma once

#include <vector>

namespace cli {

using Args = std::vector<const char*>;

int cmd_probe(const Args& args);
int cmd_thumb(const Args& args);
int cmd_frames(const Args& args);
int cmd_audio(const Args& args);
int cmd_mix(const Args& args);
int cmd_waveform(const Args& args);
int cmd_filmstrip(const Args& args);
int cmd_bench(const Args& args);
int cmd_info(const Args& args);
int cmd_time(const Args& args);
int cmd_md5(const Args& args);
int cmd_pool(const Args& args);

}  // namespace cli
