// Small text helpers shared by the library and the host: in-place trimming,
// printf-style formatting into a std::string, prefix/suffix tests, case
// folding, random strings and substring replacement.
//
// Null arguments are tolerated everywhere: each function says what it returns
// for them. Nothing here throws except on memory exhaustion inside std::string.
#pragma once

#include <string>

#include "../clipdec_export.h"

namespace zo {

// The trimming white space is exactly space, tab, line feed and carriage return.

// Pointer to the first character of `s` that is not white space; nothing is
// written. Null gives null.
CLIPDEC_API char* trim_begin(char* s);
CLIPDEC_API const char* trim_begin(const char* s);

// Writes a NUL after the last character that is not white space and returns
// `s`. The first character is never examined, so a string made only of white
// space keeps its first character (use `trim` to get an empty result). Null
// gives null.
CLIPDEC_API char* trim_end(char* s);

// `trim_end`, then the pointer `trim_begin` gives; a string made only of white
// space yields an empty string. Null gives null.
CLIPDEC_API char* trim(char* s);

// Pointer to the first character of `s` that does not occur in `chars`.
// Returns `s` unchanged when `s` or `chars` is null or empty.
CLIPDEC_API char* trim_begin2(char* s, const char* chars);

// Overwrites with NUL, from the end backwards, every character found in
// `chars`, stopping at the first that is not; the first character is never
// removed. Returns `s`; null or empty `s`/`chars` and one-character strings
// are left unchanged.
CLIPDEC_API char* trim_end2(char* s, const char* chars);

// printf-style formatting into a string of exactly the needed size. Null `fmt`,
// a formatting error, or a failed allocation give an empty string.
CLIPDEC_API std::string str_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// True when `s` begins with `prefix` (compared byte-wise, or ignoring ASCII
// case when `case_sensitive` is false). An empty prefix matches; a null
// argument or a prefix longer than `s` gives false.
CLIPDEC_API bool begin_width(const char* s, const char* prefix, bool case_sensitive);

// The same test for the end of `s`.
CLIPDEC_API bool end_width(const char* s, const char* suffix, bool case_sensitive);

// In-place case folding, byte by byte with the C library's tolower/toupper.
// Return `s`; null gives null.
CLIPDEC_API char* str_to_lower(char* s);
CLIPDEC_API char* str_to_upper(char* s);

// `n` characters drawn from [0-9a-zA-Z]; empty for n <= 0. Each call reseeds
// the process's shared rand() generator with time(NULL) plus a call counter,
// so two calls within the same second still differ. Safe to call from several
// threads as far as the counter goes; the rand() sequence itself is shared.
CLIPDEC_API std::string rand_str(int n);

// Copy of `src` in which `from` is replaced by `to`, searching again from the
// start after every replacement (so a replacement may create new matches that
// are replaced in turn).
//   - null `src` gives an empty string; null `to` counts as empty;
//   - null or empty `from` gives `src` unchanged;
//   - when `to` itself contains `from` the repeated search could never end, so
//     a single left-to-right pass is made instead (as str_replace_all_distinct);
//   - a replacement that does not shrink the text stops after (strlen(src)+1)^2
//     replacements at most, which is a guard against rewrite cycles and runaway
//     growth rather than a limit any sensible call reaches.
CLIPDEC_API std::string str_replace_all(const char* src, const char* from, const char* to);

// Copy of `src` in which `from` is replaced by `to` in one left-to-right pass:
// each search continues after the text just inserted, so inserted text is
// never searched. Null `src` gives an empty string; null `to` counts as empty;
// null or empty `from` gives `src` unchanged.
CLIPDEC_API std::string str_replace_all_distinct(const char* src, const char* from, const char* to);

}  // namespace zo
