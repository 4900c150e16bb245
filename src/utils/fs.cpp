#include "fs.h"

#include <dirent.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../guarded.h"

#include "zo_md5.h"
#include "zo_text.h"

namespace fs {

namespace {

#if defined(_WIN32)
constexpr char kNativeSeparator = '\\';
#else
constexpr char kNativeSeparator = '/';
#endif

// Characters that users drag in when they paste a path from a shell or a
// quoted list: quotes, backspace, tab, LF, CR and space.
constexpr char kPathJunk[] = "\"\b\t\n\r ";

}  // namespace

std::string to_native_filepath(const std::string& path) {
    return ff::guarded("to_native_filepath", std::string(), [&]() -> std::string {
        std::string out;
        out.reserve(path.size());
        bool in_run = false;
        for (const char c : path) {
            const bool sep = c == '/' || c == '\\';
            // One separator per run, so "a//b" and "a\\b" name the same file and
            // give the same file_unique_id. A leading "\\" (UNC) collapses too.
            if (sep) {
                if (!in_run) out.push_back(kNativeSeparator);
            } else {
                out.push_back(c);
            }
            in_run = sep;
        }
        return out;
    });
}

FILE* zo_fopen(const char* path, const char* mode) {
    if (!path || !mode) return nullptr;
    std::vector<char> copy(path, path + std::strlen(path) + 1);
    char* name = zo::trim_begin2(zo::trim_end2(copy.data(), kPathJunk), kPathJunk);
    // Windows would try the UTF-16 name first; a POSIX name is the UTF-8 bytes.
    return std::fopen(name, mode);
}

bool zo_file_stat(const char* path, struct stat& st) {
    if (!path) return false;
    if (::stat(path, &st) == 0) return true;

    // Some files can be read without being stat-able (odd mounts, names that
    // only open after zo_fopen's trimming); their size is still worth having.
    FILE* file = zo_fopen(path, "rb");
    if (!file) return false;
    std::memset(&st, 0, sizeof(st));
    if (fseeko(file, 0, SEEK_END) == 0) {
        const off_t end = ftello(file);
        st.st_size = end < 0 ? 0 : end;
    }
    std::fclose(file);
    return true;
}

std::string file_unique_id(const char* path) {
    return ff::guarded("file_unique_id", std::string(), [&]() -> std::string {
        if (!path) return std::string();
        const std::string n = to_native_filepath(path);

        char text[512];
        struct stat st;
        if (zo_file_stat(n.c_str(), st)) {
            std::snprintf(text, 511, "%s_%lld_%lld", n.c_str(), static_cast<long long>(st.st_size),
                          static_cast<long long>(st.st_mtime));
        } else {
            std::snprintf(text, 511, "%s_%d_%d", n.c_str(), 0, 0);
        }

        const char* hex = zo::MD5String(text);
        std::string id = hex ? hex : "";
        std::free(const_cast<char*>(hex));
        return id;
    });
}

std::string tmp_dir() {
    return ff::guarded("tmp_dir", std::string(), [&]() -> std::string {
        const char* env = std::getenv("TMPDIR");
        if (env && *env) return to_native_filepath(env);
        return "/tmp";
    });
}

int zo_rename(const char* from, const char* to) {
    if (!from || !to) return -1;
    return std::rename(from, to);
}

bool make_dir(const char* path, int mode) {
    (void)mode;  // kept for callers written against the Windows signature
    if (!path) return false;
    if (is_dir_exist(path)) return true;
    if (::mkdir(path, 0777) == 0) return true;
    // Someone else may have created it between the two calls.
    return errno == EEXIST && is_dir_exist(path);
}

bool is_dir_exist(const char* path) {
    if (!path) return false;
    DIR* dir = ::opendir(path);
    if (!dir) return false;
    ::closedir(dir);
    return true;
}

}  // namespace fs
