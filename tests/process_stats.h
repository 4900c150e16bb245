// What the process holds, read from /proc: for the lifecycle test and the
// soak programs, which check that work leaves no thread or memory behind.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <fstream>

namespace processstats {

inline double resident_mb() {
    std::ifstream statm("/proc/self/statm");
    long long pages_total = 0, pages_resident = 0;
    statm >> pages_total >> pages_resident;
    return static_cast<double>(pages_resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

inline int thread_count() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

}  // namespace processstats
