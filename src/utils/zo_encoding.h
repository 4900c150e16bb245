// Conversions between the platform's own narrow character set (called "GBK"
// or "ANSI" in these names, after the Chinese Windows systems the host grew up
// on), UTF-8 and the platform wide string.
//
// On Linux and other POSIX systems:
//   - the wide side is std::wstring with a 32-bit wchar_t, i.e. one UTF-32
//     code point per element (UTF-16 on Windows);
//   - the "ANSI" side is the character set of the C library's current locale
//     (nl_langinfo(CODESET)), converted with iconv. These functions never call
//     setlocale: in a program that never does, that set is plain ASCII.
//
// Invalid input never stops a conversion: a byte that cannot be decoded
// becomes U+FFFD in wide output, and a code point that cannot be encoded (a
// surrogate, a value beyond U+10FFFF, or one the narrow set lacks) becomes '?'
// in narrow output; the rest of the text is converted normally. A null
// pointer converts like an empty string.
#pragma once

#include <string>

#include "../clipdec_export.h"

namespace zo {

// Platform character set -> UTF-8. A locale that gives only ASCII (the
// process never called setlocale) counts as GBK.
CLIPDEC_API std::string GBKToUTF8(const std::string& s);

// UTF-8 -> platform character set, GBK when the locale gives only ASCII.
CLIPDEC_API std::string UTF8ToGBK(const std::string& s);

// Wide string -> UTF-8 when `utf8` is true, else -> platform character set.
CLIPDEC_API std::string Unicode2ACSII(const wchar_t* w, bool utf8);

// UTF-8 (when `utf8` is true) or platform character set -> wide string.
CLIPDEC_API std::wstring ASCII2Unicode(const char* s, bool utf8);

}  // namespace zo
