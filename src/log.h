// The library's one logging macro and its levels and tags.
//
// CLIPDEC_LOG(level, tag, "text %s", args...) hands the host:
//   - the source file relative to the project root, extension included
//     (the build maps the source directory away from __FILE__);
//   - the format as the literal's own source text, quotes and escapes as
//     written, followed by a newline; the host formats it with the arguments.
// write_log carries a printf attribute, so the arguments are still checked
// against the quoted literal at compile time.
#pragma once

#include "no_bridge.h"

namespace ff {

enum LogLevel { kLogError = 2, kLogWarning = 3, kLogDebug = 5 };

constexpr const char* kTagDefault = "no-bg";
constexpr const char* kTagHw = "hw";

}  // namespace ff

#define CLIPDEC_LOG(level, tag, fmt, ...)                                                   \
    do {                                                                                    \
        ::NoBridge::instance()->write_log((level), (tag), __FILE__, __LINE__, #fmt "\n",    \
                                          ##__VA_ARGS__);                                   \
    } while (0)

// A scope marker for the host, open until the end of the enclosing block.
#define CLIPDEC_SCOPE_CAT2(a, b) a##b
#define CLIPDEC_SCOPE_CAT(a, b) CLIPDEC_SCOPE_CAT2(a, b)
#define CLIPDEC_SCOPE(name, note) \
    ::NoBridge::TCell CLIPDEC_SCOPE_CAT(clipdec_scope_, __LINE__)((name), __FILE__, __LINE__, (note))
