#include "wave_files.h"

#include <sys/types.h>

#include <cstring>

#include "../log.h"
#include "fs.h"

namespace ff {

WaveFiles::WaveFiles() : readonly(false), file_size(-1) {}

WaveFiles::~WaveFiles() {
    close();
}

bool WaveFiles::open(const std::vector<std::string>& paths, const char* mode) {
    if (!mode) return false;
    if (std::strchr(mode, 'r') && !std::strchr(mode, '+')) readonly = true;

    for (const std::string& path : paths) {
        FILE* file = fs::zo_fopen(path.c_str(), mode);
        if (!file) {
            CLIPDEC_LOG(ff::kLogError, ff::kTagDefault, "[wave files] can't open (mode=%s): %s",
                        mode, path.c_str());
            // A partial group would pair planes with the wrong files, so
            // nothing of it is kept.
            close();
            return false;
        }
        files.push_back(file);
    }

    if (readonly && !files.empty()) {
        FILE* first = files.front();
        fseeko(first, 0, SEEK_END);
        file_size = static_cast<long long>(ftello(first));
        fseeko(first, 0, SEEK_SET);
    }
    return !files.empty();
}

void WaveFiles::close() {
    for (FILE* file : files) std::fclose(file);
    files.clear();
}

bool WaveFiles::is_opened() const {
    return !files.empty();
}

int WaveFiles::write(const unsigned char** planes, int bytes) {
    if (files.empty() || !planes || bytes < 0) return -1;
    for (size_t i = 0; i < files.size(); ++i) {
        if (!planes[i]) return -1;
    }
    size_t written = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        written = std::fwrite(planes[i], 1, static_cast<size_t>(bytes), files[i]);
    }
    return static_cast<int>(written);
}

int WaveFiles::read(unsigned char** planes, int offset, int bytes) {
    if (files.empty() || !planes || offset < 0 || bytes < 0) return -1;
    for (size_t i = 0; i < files.size(); ++i) {
        if (!planes[i]) return -1;
    }
    size_t got = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        got = std::fread(planes[i] + offset, 1, static_cast<size_t>(bytes), files[i]);
    }
    return static_cast<int>(got);
}

long long WaveFiles::size() {
    if (file_size >= 0) return file_size;
    if (files.empty()) return 0;
    return static_cast<long long>(ftello(files.front()));
}

void WaveFiles::seek(long long offset, int whence) {
    for (FILE* file : files) fseeko(file, static_cast<off_t>(offset), whence);
}

}  // namespace ff
