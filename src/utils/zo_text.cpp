#include "zo_text.h"

#include <strings.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "../guarded.h"

namespace zo {

namespace {

// Bounds of str_replace_all's rewriting: bytes moved in all, and the result's size.
constexpr size_t kMaxReplaceWork = size_t{1} << 28;
constexpr size_t kMaxReplaceSize = size_t{64} << 20;

bool is_trim_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// strchr would also match the terminating NUL, which must never count as a
// member of the set.
bool in_set(char c, const char* chars) {
    return c != '\0' && std::strchr(chars, c) != nullptr;
}

}  // namespace

char* trim_begin(char* s) {
    if (!s) return nullptr;
    while (is_trim_space(*s)) ++s;
    return s;
}

const char* trim_begin(const char* s) {
    if (!s) return nullptr;
    while (is_trim_space(*s)) ++s;
    return s;
}

char* trim_end(char* s) {
    if (!s) return nullptr;
    // Index 0 is never examined, matching trim_end2 and the behaviour existing
    // callers were written against; `trim` still empties an all-blank string
    // because its leading pass skips that first character.
    for (size_t i = std::strlen(s); i > 1 && is_trim_space(s[i - 1]); --i) {
        s[i - 1] = '\0';
    }
    return s;
}

char* trim(char* s) {
    return trim_begin(trim_end(s));
}

char* trim_begin2(char* s, const char* chars) {
    if (!s || !chars || !*s || !*chars) return s;
    while (in_set(*s, chars)) ++s;
    return s;
}

char* trim_end2(char* s, const char* chars) {
    if (!s || !chars || !*chars) return s;
    for (size_t i = std::strlen(s); i > 1 && in_set(s[i - 1], chars); --i) {
        s[i - 1] = '\0';
    }
    return s;
}

std::string str_format(const char* fmt, ...) {
    if (!fmt) return std::string();

    va_list args;
    va_start(args, fmt);
    va_list measure;
    va_copy(measure, args);
    const int needed = std::vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);

    std::string out;
    if (needed > 0) {
        // Allocation failure must give an empty result, not an exception
        // escaping into the host.
        std::unique_ptr<char[]> buf(new (std::nothrow) char[static_cast<size_t>(needed) + 1]);
        if (buf) {
            std::vsnprintf(buf.get(), static_cast<size_t>(needed) + 1, fmt, args);
            ff::guarded_void("str_format", [&] { out.assign(buf.get(), static_cast<size_t>(needed)); });
        }
    }
    va_end(args);
    return out;
}

bool begin_width(const char* s, const char* prefix, bool case_sensitive) {
    if (!s || !prefix) return false;
    const size_t n = std::strlen(prefix);
    if (n > std::strlen(s)) return false;
    return (case_sensitive ? std::strncmp(s, prefix, n) : strncasecmp(s, prefix, n)) == 0;
}

bool end_width(const char* s, const char* suffix, bool case_sensitive) {
    if (!s || !suffix) return false;
    const size_t n = std::strlen(suffix);
    const size_t len = std::strlen(s);
    if (n > len) return false;
    const char* tail = s + (len - n);
    return (case_sensitive ? std::strncmp(tail, suffix, n) : strncasecmp(tail, suffix, n)) == 0;
}

char* str_to_lower(char* s) {
    if (!s) return nullptr;
    // Through unsigned char: passing a negative char to tolower is undefined.
    for (char* p = s; *p; ++p) *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    return s;
}

char* str_to_upper(char* s) {
    if (!s) return nullptr;
    for (char* p = s; *p; ++p) *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
    return s;
}

std::string rand_str(int n) {
    return ff::guarded("rand_str", std::string(), [&]() -> std::string {
        static const char kAlphabet[] =
            "1234567890abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
        static std::atomic<unsigned int> counter{0};

        if (n <= 0) return std::string();
        // The counter keeps two calls in the same second from sharing a seed.
        const unsigned int k = counter.fetch_add(1, std::memory_order_relaxed);
        std::srand(static_cast<unsigned int>(std::time(nullptr)) + k);

        std::string out(static_cast<size_t>(n), '0');
        for (char& c : out) c = kAlphabet[std::rand() % 62];
        return out;
    });
}

std::string str_replace_all(const char* src, const char* from, const char* to) {
    return ff::guarded("str_replace_all", std::string(), [&]() -> std::string {
        if (!src) return std::string();
        if (!from || !*from) return std::string(src);
        if (!to) to = "";
        // Re-searching from the start would find the inserted text forever.
        if (std::strstr(to, from)) return str_replace_all_distinct(src, from, to);

        std::string out(src);
        const size_t from_len = std::strlen(from);
        const size_t to_len = std::strlen(to);
        // Rewrites that create new matches can grow without end (each "ab" of
        // a...ab -> bba doubles the b's), so the work is bounded, not the number
        // of steps: past the budget the rewrite stops where it is.
        size_t work = 0;
        for (size_t pos = out.find(from, 0, from_len); pos != std::string::npos;
             pos = out.find(from, pos >= from_len ? pos - from_len + 1 : 0, from_len)) {
            // What lies before the replaced text held no match and did not change,
            // so the next one starts at most from_len - 1 characters earlier.
            work += out.size() - pos + to_len;
            if (work > kMaxReplaceWork || out.size() - from_len + to_len > kMaxReplaceSize) break;
            out.replace(pos, from_len, to, to_len);
        }
        return out;
    });
}

std::string str_replace_all_distinct(const char* src, const char* from, const char* to) {
    return ff::guarded("str_replace_all_distinct", std::string(), [&]() -> std::string {
        if (!src) return std::string();
        if (!from || !*from) return std::string(src);
        if (!to) to = "";

        std::string out(src);
        const size_t from_len = std::strlen(from);
        const size_t to_len = std::strlen(to);
        for (size_t pos = 0; (pos = out.find(from, pos, from_len)) != std::string::npos;
             pos += to_len) {
            out.replace(pos, from_len, to, to_len);
        }
        return out;
    });
}

}  // namespace zo
