#include "no_bridge.h"

#include <cstdio>
#include <cstdlib>

NoBridge::NoBridge() : api(nullptr) {
    const char* value = std::getenv("cstyle-api");
    void* table = nullptr;
    if (value && std::sscanf(value, "%p", &table) == 1) {
        api = static_cast<HostFn*>(table);
    }
}

NoBridge* NoBridge::instance() {
    // A function-local static is initialised exactly once even when the first
    // calls race; the object is deliberately never destroyed, so that messages
    // written during static destruction still have a bridge.
    static NoBridge* const bridge = new NoBridge();
    return bridge;
}

int NoBridge::write_log(int level, const char* tag, const char* file, int line,
                        const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = write_log_v(level, tag, file, line, format, args);
    va_end(args);
    return result;
}

int NoBridge::write_log_v(int level, const char* tag, const char* file, int line,
                          const char* format, va_list args) {
    if (!api) {
        return std::vfprintf(stdout, format, args);
    }
    return entry<WriteLogFn>(kWriteLog)(level, tag, file, line, format, args);
}

int NoBridge::get_int_setting(const char* key, int default_value) const {
    if (!api) {
        return default_value;
    }
    return entry<GetIntFn>(kGetInt)(key, default_value);
}

NoBridge::TCell::TCell(const char* name, const char* file, int line, const char* note)
    : cell(nullptr) {
    NoBridge* bridge = NoBridge::instance();
    if (bridge->api) {
        cell = bridge->entry<OpenScopeFn>(kOpenScope)(name, file, line, note);
    }
}

NoBridge::TCell::~TCell() {
    NoBridge* bridge = NoBridge::instance();
    if (bridge->api) {
        bridge->entry<CloseScopeFn>(kCloseScope)(cell);
    }
}
