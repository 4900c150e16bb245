// A group of raw PCM files that belong together, one file per plane (usually
// one per channel of planar audio), written, read and positioned in lockstep.
// Plane i of every call goes with file i; all planes of one call carry the
// same byte count, and `planes` must hold at least as many pointers as there
// are open files.
//
// One thread at a time per object.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "../clipdec_export.h"

namespace ff {

class CLIPDEC_API WaveFiles {
public:
    WaveFiles();
    // Closes any files still open.
    ~WaveFiles();
    WaveFiles(const WaveFiles&) = delete;
    WaveFiles& operator=(const WaveFiles&) = delete;

    // Opens every path with `mode` (through fs::zo_fopen) and appends the files
    // to `files`. If one cannot be opened, it is logged, the paths after it are
    // not tried, and every file of the group - including those from earlier
    // calls - is closed: the result is then false. A mode with 'r' and no '+'
    // marks the group read-only and measures `file_size` from the first file.
    // True when at least one file is open afterwards (an empty list gives
    // false); a null `mode` gives false and changes nothing.
    bool open(const std::vector<std::string>& paths, const char* mode);

    // Closes every file and empties `files`; `readonly` and `file_size` stay.
    void close();

    bool is_opened() const;

    // Writes `bytes` bytes of planes[i] to file i, for every file in order.
    // Returns what the last fwrite returned (bytes written to the last file).
    // -1, with nothing written, when no file is open, `planes` or one of the
    // needed plane pointers is null, or `bytes` is negative.
    int write(const unsigned char** planes, int bytes);

    // Reads up to `bytes` bytes of file i into planes[i] + offset, for every
    // file in order. Returns what the last fread returned. -1, with nothing
    // read, when no file is open, `planes` or one of the needed plane pointers
    // is null, or `offset` or `bytes` is negative.
    int read(unsigned char** planes, int offset, int bytes);

    // `file_size` when it is known (0 or more); otherwise the current position
    // of the first file, or 0 when no file is open.
    long long size();

    // fseeko(file, offset, whence) on every file; results are not examined.
    void seek(long long offset, int whence);

    // The open files in the order of the paths given to open; owned.
    std::vector<FILE*> files;
    // The group was opened for reading only. Set by such an open and not
    // cleared by later ones.
    bool readonly;
    // Byte length of the first file, measured when it was opened for reading;
    // negative while not known. Named apart from size() because C++ does not
    // allow a data member and a member function to share a name.
    long long file_size;
};

}  // namespace ff
