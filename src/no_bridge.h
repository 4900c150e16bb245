// The bridge that carries the library's diagnostics, scope markers and integer
// settings to the host. The host publishes a table of function pointers and
// puts its address, formatted with "%p", into the environment variable
// "cstyle-api"; the bridge reads that variable once, at first use, and keeps
// the table for the rest of the process. Without a table, messages go to
// standard output, scopes do nothing and settings take their defaults.
//
// Table positions the library calls (all others belong to the host):
//   5  int   write_log(int level, const char* tag, const char* file, int line,
//                      const char* format, va_list args)
//   6  void* open_scope(const char* name, const char* file, int line, const char* note)
//   7  void  close_scope(void* scope)
//   11 int   get_int(const char* key, int default_value)
//
// Thread safety: the bridge takes no lock and keeps no per-call state; the
// host's entries must accept calls from several threads at once.
#pragma once

#include <cstdarg>

#include "clipdec_export.h"

class CLIPDEC_API NoBridge {
public:
    using HostFn = void (*)();
    using WriteLogFn = int (*)(int level, const char* tag, const char* file, int line,
                               const char* format, va_list args);
    using OpenScopeFn = void* (*)(const char* name, const char* file, int line, const char* note);
    using CloseScopeFn = void (*)(void* scope);
    using GetIntFn = int (*)(const char* key, int default_value);

    enum TablePosition { kWriteLog = 5, kOpenScope = 6, kCloseScope = 7, kGetInt = 11 };

    // Opens a host scope for its lifetime (name, source position, optional note).
    class CLIPDEC_API TCell {
    public:
        TCell(const char* name, const char* file, int line, const char* note);
        ~TCell();
        TCell(const TCell&) = delete;
        TCell& operator=(const TCell&) = delete;

    private:
        void* cell;
    };

    // The process's bridge; created on the first call, thread-safely, never destroyed.
    static NoBridge* instance();

    int write_log(int level, const char* tag, const char* file, int line, const char* format, ...)
        __attribute__((format(printf, 6, 7)));
    int write_log_v(int level, const char* tag, const char* file, int line, const char* format,
                    va_list args);

    // The host's value for an integer setting, or `default_value` without a table.
    int get_int_setting(const char* key, int default_value) const;

    bool has_host_table() const { return api != nullptr; }

private:
    NoBridge();
    template <typename Fn>
    Fn entry(TablePosition position) const {
        return reinterpret_cast<Fn>(api[position]);
    }

    HostFn* api;
};
