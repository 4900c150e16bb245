// File-system helpers for file names given as UTF-8 text.
//
// On Windows each call tries the wide (UTF-16) function first and then the
// narrow one with the unchanged bytes. On POSIX systems file names are byte
// strings, so the UTF-8 name goes straight to the one narrow call.
//
// None of these functions reports errors beyond its return value, and none
// throws. A null path is treated as a failure: null FILE*, false, an empty
// string or -1, as each function says.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "../clipdec_export.h"

namespace fs {

// Every run of one or more '/' or '\' becomes a single native separator ('/'
// here, '\' on Windows); other characters are copied. So "C:/a//b/c/" gives
// "C:/a/b/c/" and "\\server\x" gives "/server/x". Empty in, empty out.
CLIPDEC_API std::string to_native_filepath(const std::string& path);

// fopen after stripping double quotes, backspace, tab, LF, CR and spaces from
// both ends of `path`, so pasted names like "\"/tmp/a b.wav\"\n" open; those
// characters inside the name stay. Null on failure or when `path` or `mode`
// is null.
CLIPDEC_API FILE* zo_fopen(const char* path, const char* mode);

// stat on `path`. When stat fails but the file can still be opened for
// reading, `st` is zeroed and only st_size is filled (from the file's end
// position). False when neither works or `path` is null; `st` is then left
// untouched. On 64-bit Linux `struct stat` already has 64-bit sizes and times.
CLIPDEC_API bool zo_file_stat(const char* path, struct stat& st);

// 32 lowercase hex digits: the MD5 of "<normalised path>_<size>_<mtime>", or
// of "<normalised path>_0_0" when the file cannot be stat-ed. It changes when
// the file's size or modification time does, and spellings of one path that
// differ only in separators agree. Empty for a null path.
CLIPDEC_API std::string file_unique_id(const char* path);

// $TMPDIR (normalised with to_native_filepath) when set and not empty,
// otherwise "/tmp".
CLIPDEC_API std::string tmp_dir();

// rename(from, to): 0 on success, otherwise rename's non-zero result; -1 when
// either name is null.
CLIPDEC_API int zo_rename(const char* from, const char* to);

// True when `path` is a directory afterwards: an existing one is left alone,
// otherwise only its last component is created (parents are not). The new
// directory gets mode 0777 less the umask; `mode` is accepted for source
// compatibility and ignored. False for a null path.
CLIPDEC_API bool make_dir(const char* path, int mode);

// True when `path` can be opened as a directory. False for a null path.
CLIPDEC_API bool is_dir_exist(const char* path);

}  // namespace fs
