// MD5 digests (RFC 1321) of memory, strings and files, printed as lowercase
// hexadecimal.
//
// Every `const char*` result below is a heap copy made with strdup:
// the caller owns it and releases it with free(). A null argument gives a
// null result and nothing is allocated.
#pragma once

#include "../clipdec_export.h"

namespace zo {

// The 64-byte padding block of RFC 1321: 0x80 followed by zeros.
CLIPDEC_API extern const unsigned char PADDING[64];

// Digest state, as in the RFC's reference implementation: Init, any number of
// Update calls, then Finalize fills `digest`.
struct CLIPDEC_API md5 {
    unsigned int state[4];     // A, B, C, D
    unsigned int count[2];     // message length in bits, low word first
    unsigned char buffer[64];  // input not yet transformed
    unsigned char digest[16];  // the result, valid after Finalize

    md5() { Init(); }

    void Init();
    // Adds `length` bytes; a null `input` is ignored.
    void Update(unsigned char* input, unsigned int length);
    // Pads, appends the length and writes `digest`. Call Init before reusing.
    void Finalize();

    // Internal steps, public as in the reference implementation.
    void Transform(unsigned char* block);                                 // one 64-byte block
    void Encode(unsigned char* out, unsigned int* in, unsigned int length);  // words -> LE bytes
    void Decode(unsigned int* out, unsigned char* in, unsigned int length);  // LE bytes -> words
};

// The 16 bytes of `digest` as 32 lowercase hex digits.
CLIPDEC_API const char* PrintMD5(unsigned char* digest);

// As PrintMD5, but each byte is ANDed with 0xFC first, so every second digit is
// 0, 4, 8 or c.
CLIPDEC_API const char* PrintMD5_Masked(unsigned char* digest);

// Hex MD5 of `length` bytes at `data` (null `data` gives null, even for length 0).
CLIPDEC_API const char* MD5BinData(unsigned char* data, unsigned long length);

// Hex MD5 of the strlen(s) bytes of `s`.
CLIPDEC_API const char* MD5String(const char* s);

// MD5 of `s` printed as PrintMD5_Masked does.
CLIPDEC_API const char* MD5String_Masked(const char* s);

// Hex MD5 of the whole file at `path` (UTF-8, opened with fs::zo_fopen), or
// null when it cannot be opened or read.
CLIPDEC_API const char* MD5File(const char* path);

// In place: the 32-digit text becomes its middle 16 digits (the 9th to the 24th)
// followed by a NUL. Returns `hex`; null gives null, and text shorter than 24
// characters is left unchanged. Unlike the functions above, this allocates
// nothing.
CLIPDEC_API char* MD5_32_to_16(char* hex);

}  // namespace zo
