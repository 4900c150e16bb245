#include "zo_encoding.h"

#include <iconv.h>
#include <langinfo.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "../guarded.h"

namespace zo {

namespace {

constexpr wchar_t kReplacementChar = static_cast<wchar_t>(0xFFFD);

static_assert(sizeof(wchar_t) == 4, "the wide side is expected to hold whole code points");

// ---------------------------------------------------------------- UTF-8

// Decoded by hand so that malformed input is handled the same way whatever
// iconv implementation the system has. Overlong forms, surrogates and values
// beyond U+10FFFF are rejected; each rejected lead byte costs one U+FFFD and
// decoding resumes at the next byte.
std::wstring utf8_to_wide(const char* s, size_t len) {
    std::wstring out;
    out.reserve(len);
    const auto* p = reinterpret_cast<const unsigned char*>(s);
    size_t i = 0;
    while (i < len) {
        const unsigned char b = p[i];
        if (b < 0x80) {
            out.push_back(static_cast<wchar_t>(b));
            ++i;
            continue;
        }
        size_t extra;
        char32_t cp;
        char32_t min;
        if (b >= 0xC2 && b <= 0xDF) {
            extra = 1; cp = b & 0x1F; min = 0x80;
        } else if (b >= 0xE0 && b <= 0xEF) {
            extra = 2; cp = b & 0x0F; min = 0x800;
        } else if (b >= 0xF0 && b <= 0xF4) {
            extra = 3; cp = b & 0x07; min = 0x10000;
        } else {
            out.push_back(kReplacementChar);
            ++i;
            continue;
        }
        bool ok = i + extra < len;  // a sequence cut off by the end is invalid
        for (size_t k = 1; ok && k <= extra; ++k) {
            const unsigned char c = p[i + k];
            if ((c & 0xC0) != 0x80) ok = false;
            else cp = (cp << 6) | (c & 0x3F);
        }
        if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
        if (!ok) {
            out.push_back(kReplacementChar);
            ++i;
            continue;
        }
        out.push_back(static_cast<wchar_t>(cp));
        i += extra + 1;
    }
    return out;
}

std::string wide_to_utf8(const wchar_t* w, size_t len) {
    std::string out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        // Through an unsigned type: wchar_t is signed here and a negative
        // value must count as out of range, not as a small code point.
        const auto cp = static_cast<unsigned long>(static_cast<char32_t>(w[i]));
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            if (cp >= 0xD800 && cp <= 0xDFFF) {
                out.push_back('?');
                continue;
            }
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp <= 0x10FFFF) {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back('?');
        }
    }
    return out;
}

// ---------------------------------------------------------------- locale set

// A fresh descriptor per call: an iconv_t carries shift state and must not be
// shared between threads, and these conversions are called from any thread.
class Iconv {
public:
    Iconv(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
    ~Iconv() {
        if (ok()) iconv_close(cd_);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return cd_; }

private:
    iconv_t cd_;
};

const char* locale_codeset() {
    const char* cs = nl_langinfo(CODESET);
    return (cs && *cs) ? cs : "ANSI_X3.4-1968";
}

bool is_ascii_codeset(const char* cs) {
    return !std::strcmp(cs, "ANSI_X3.4-1968") || !strcasecmp(cs, "ASCII") || !strcasecmp(cs, "US-ASCII");
}

// GBK, or GB18030 (which encodes every GBK character with the same bytes)
// where the system's iconv has no GBK. Asked once: the answer cannot change.
const char* gbk_name() {
    static const char* const name = [] {
        const Iconv probe("WCHAR_T", "GBK");
        return probe.ok() ? "GBK" : "GB18030";
    }();
    return name;
}

// The GBK side of GBKToUTF8 / UTF8ToGBK: the locale's character set when the
// process set one, and GBK itself when the locale says only ASCII (a process
// that never called setlocale), since the names promise GBK.
const char* gbk_codeset() {
    const char* cs = locale_codeset();
    return is_ascii_codeset(cs) ? gbk_name() : cs;
}

// Runs `in` through `cd`. On a sequence it cannot convert, writes `bad`
// (`bad_len` bytes) to the output and skips `skip` input bytes, then goes on.
// Returns false only when the conversion cannot make progress at all.
bool run_iconv(iconv_t cd, const char* in, size_t in_len, size_t skip, const char* bad,
               size_t bad_len, std::string& out) {
    char* src = const_cast<char*>(in);
    size_t src_left = in_len;
    char buf[4096];
    bool flushing = false;
    for (;;) {
        char* dst = buf;
        size_t dst_left = sizeof(buf);
        // Once the text is consumed, a call with null input writes whatever a
        // stateful set needs to return to its initial shift state.
        const size_t r = flushing ? iconv(cd, nullptr, nullptr, &dst, &dst_left)
                                  : iconv(cd, &src, &src_left, &dst, &dst_left);
        const int err = errno;
        out.append(buf, static_cast<size_t>(dst - buf));
        if (r != static_cast<size_t>(-1)) {
            if (flushing) return true;
            if (src_left == 0) flushing = true;
            continue;
        }
        if (err == E2BIG) continue;
        if (!flushing && (err == EILSEQ || err == EINVAL) && src_left > 0) {
            const size_t n = skip < src_left ? skip : src_left;
            src += n;
            src_left -= n;
            out.append(bad, bad_len);
            if (src_left == 0) flushing = true;
            continue;
        }
        return false;
    }
}

std::wstring locale_to_wide(const char* s, size_t len, const char* codeset) {
    Iconv cd("WCHAR_T", codeset);
    if (cd.ok()) {
        std::string bytes;
        const wchar_t bad = kReplacementChar;
        if (run_iconv(cd.get(), s, len, 1, reinterpret_cast<const char*>(&bad), sizeof(bad),
                      bytes)) {
            std::wstring out(bytes.size() / sizeof(wchar_t), L'\0');
            std::memcpy(&out[0], bytes.data(), out.size() * sizeof(wchar_t));
            return out;
        }
    }
    // Without a usable converter only ASCII is trusted.
    std::wstring out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        const auto b = static_cast<unsigned char>(s[i]);
        out.push_back(b < 0x80 ? static_cast<wchar_t>(b) : kReplacementChar);
    }
    return out;
}

std::string wide_to_locale(const wchar_t* w, size_t len, const char* codeset) {
    Iconv cd(codeset, "WCHAR_T");
    if (cd.ok()) {
        std::string out;
        if (run_iconv(cd.get(), reinterpret_cast<const char*>(w), len * sizeof(wchar_t),
                      sizeof(wchar_t), "?", 1, out)) {
            return out;
        }
    }
    std::string out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        const auto cp = static_cast<char32_t>(w[i]);
        out.push_back(cp < 0x80 ? static_cast<char>(cp) : '?');
    }
    return out;
}

}  // namespace

std::string GBKToUTF8(const std::string& s) {
    return ff::guarded("GBKToUTF8", std::string(), [&]() -> std::string {
        const std::wstring w = locale_to_wide(s.data(), s.size(), gbk_codeset());
        return wide_to_utf8(w.data(), w.size());
    });
}

std::string UTF8ToGBK(const std::string& s) {
    return ff::guarded("UTF8ToGBK", std::string(), [&]() -> std::string {
        const std::wstring w = utf8_to_wide(s.data(), s.size());
        return wide_to_locale(w.data(), w.size(), gbk_codeset());
    });
}

std::string Unicode2ACSII(const wchar_t* w, bool utf8) {
    return ff::guarded("Unicode2ACSII", std::string(), [&]() -> std::string {
        if (!w || !*w) return std::string();
        const size_t len = std::wcslen(w);
        return utf8 ? wide_to_utf8(w, len) : wide_to_locale(w, len, locale_codeset());
    });
}

std::wstring ASCII2Unicode(const char* s, bool utf8) {
    return ff::guarded("ASCII2Unicode", std::wstring(), [&]() -> std::wstring {
        if (!s || !*s) return std::wstring();
        const size_t len = std::strlen(s);
        return utf8 ? utf8_to_wide(s, len) : locale_to_wide(s, len, locale_codeset());
    });
}

}  // namespace zo
