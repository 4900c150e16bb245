#include "zo_md5.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fs.h"

namespace zo {

const unsigned char PADDING[64] = {0x80};

namespace {

// Per-round shift amounts of RFC 1321.
constexpr unsigned int S11 = 7, S12 = 12, S13 = 17, S14 = 22;
constexpr unsigned int S21 = 5, S22 = 9, S23 = 14, S24 = 20;
constexpr unsigned int S31 = 4, S32 = 11, S33 = 16, S34 = 23;
constexpr unsigned int S41 = 6, S42 = 10, S43 = 15, S44 = 21;

inline unsigned int F(unsigned int x, unsigned int y, unsigned int z) { return (x & y) | (~x & z); }
inline unsigned int G(unsigned int x, unsigned int y, unsigned int z) { return (x & z) | (y & ~z); }
inline unsigned int H(unsigned int x, unsigned int y, unsigned int z) { return x ^ y ^ z; }
inline unsigned int I(unsigned int x, unsigned int y, unsigned int z) { return y ^ (x | ~z); }

inline unsigned int rotl(unsigned int x, unsigned int n) { return (x << n) | (x >> (32 - n)); }

inline void FF(unsigned int& a, unsigned int b, unsigned int c, unsigned int d, unsigned int x,
               unsigned int s, unsigned int ac) {
    a = rotl(a + F(b, c, d) + x + ac, s) + b;
}
inline void GG(unsigned int& a, unsigned int b, unsigned int c, unsigned int d, unsigned int x,
               unsigned int s, unsigned int ac) {
    a = rotl(a + G(b, c, d) + x + ac, s) + b;
}
inline void HH(unsigned int& a, unsigned int b, unsigned int c, unsigned int d, unsigned int x,
               unsigned int s, unsigned int ac) {
    a = rotl(a + H(b, c, d) + x + ac, s) + b;
}
inline void II(unsigned int& a, unsigned int b, unsigned int c, unsigned int d, unsigned int x,
               unsigned int s, unsigned int ac) {
    a = rotl(a + I(b, c, d) + x + ac, s) + b;
}

static_assert(sizeof(unsigned int) == 4, "MD5 words are 32 bits");

const char* print_digest(const unsigned char* digest, unsigned char mask) {
    if (!digest) return nullptr;
    char hex[33];
    for (int i = 0; i < 16; ++i) {
        std::snprintf(hex + 2 * i, 3, "%02x", static_cast<unsigned int>(digest[i] & mask));
    }
    return strdup(hex);
}

// Init, Update over the whole input, Finalize. Update takes 32-bit lengths,
// so larger inputs are fed in slices.
void digest_bytes(md5& ctx, unsigned char* data, unsigned long length) {
    constexpr unsigned long kSlice = 1UL << 30;
    ctx.Init();
    while (length > 0) {
        const unsigned long n = length < kSlice ? length : kSlice;
        ctx.Update(data, static_cast<unsigned int>(n));
        data += n;
        length -= n;
    }
    ctx.Finalize();
}

}  // namespace

void md5::Init() {
    count[0] = count[1] = 0;
    state[0] = 0x67452301;
    state[1] = 0xefcdab89;
    state[2] = 0x98badcfe;
    state[3] = 0x10325476;
    std::memset(buffer, 0, sizeof(buffer));
    std::memset(digest, 0, sizeof(digest));
}

void md5::Update(unsigned char* input, unsigned int length) {
    if (!input || length == 0) return;

    unsigned int index = (count[0] >> 3) & 0x3F;
    const unsigned int low_bits = length << 3;
    count[0] += low_bits;
    if (count[0] < low_bits) ++count[1];
    count[1] += length >> 29;

    const unsigned int part_len = 64 - index;
    unsigned int i = 0;
    if (length >= part_len) {
        std::memcpy(&buffer[index], input, part_len);
        Transform(buffer);
        for (i = part_len; i + 63 < length; i += 64) Transform(&input[i]);
        index = 0;
    }
    std::memcpy(&buffer[index], &input[i], length - i);
}

void md5::Finalize() {
    unsigned char bits[8];
    Encode(bits, count, 8);

    // Pad to 56 bytes mod 64, leaving room for the 8-byte length.
    const unsigned int index = (count[0] >> 3) & 0x3F;
    const unsigned int pad_len = (index < 56) ? (56 - index) : (120 - index);
    Update(const_cast<unsigned char*>(PADDING), pad_len);
    Update(bits, 8);
    Encode(digest, state, 16);
}

void md5::Transform(unsigned char* block) {
    unsigned int a = state[0], b = state[1], c = state[2], d = state[3], x[16];
    Decode(x, block, 64);

    FF(a, b, c, d, x[0], S11, 0xd76aa478);
    FF(d, a, b, c, x[1], S12, 0xe8c7b756);
    FF(c, d, a, b, x[2], S13, 0x242070db);
    FF(b, c, d, a, x[3], S14, 0xc1bdceee);
    FF(a, b, c, d, x[4], S11, 0xf57c0faf);
    FF(d, a, b, c, x[5], S12, 0x4787c62a);
    FF(c, d, a, b, x[6], S13, 0xa8304613);
    FF(b, c, d, a, x[7], S14, 0xfd469501);
    FF(a, b, c, d, x[8], S11, 0x698098d8);
    FF(d, a, b, c, x[9], S12, 0x8b44f7af);
    FF(c, d, a, b, x[10], S13, 0xffff5bb1);
    FF(b, c, d, a, x[11], S14, 0x895cd7be);
    FF(a, b, c, d, x[12], S11, 0x6b901122);
    FF(d, a, b, c, x[13], S12, 0xfd987193);
    FF(c, d, a, b, x[14], S13, 0xa679438e);
    FF(b, c, d, a, x[15], S14, 0x49b40821);

    GG(a, b, c, d, x[1], S21, 0xf61e2562);
    GG(d, a, b, c, x[6], S22, 0xc040b340);
    GG(c, d, a, b, x[11], S23, 0x265e5a51);
    GG(b, c, d, a, x[0], S24, 0xe9b6c7aa);
    GG(a, b, c, d, x[5], S21, 0xd62f105d);
    GG(d, a, b, c, x[10], S22, 0x02441453);
    GG(c, d, a, b, x[15], S23, 0xd8a1e681);
    GG(b, c, d, a, x[4], S24, 0xe7d3fbc8);
    GG(a, b, c, d, x[9], S21, 0x21e1cde6);
    GG(d, a, b, c, x[14], S22, 0xc33707d6);
    GG(c, d, a, b, x[3], S23, 0xf4d50d87);
    GG(b, c, d, a, x[8], S24, 0x455a14ed);
    GG(a, b, c, d, x[13], S21, 0xa9e3e905);
    GG(d, a, b, c, x[2], S22, 0xfcefa3f8);
    GG(c, d, a, b, x[7], S23, 0x676f02d9);
    GG(b, c, d, a, x[12], S24, 0x8d2a4c8a);

    HH(a, b, c, d, x[5], S31, 0xfffa3942);
    HH(d, a, b, c, x[8], S32, 0x8771f681);
    HH(c, d, a, b, x[11], S33, 0x6d9d6122);
    HH(b, c, d, a, x[14], S34, 0xfde5380c);
    HH(a, b, c, d, x[1], S31, 0xa4beea44);
    HH(d, a, b, c, x[4], S32, 0x4bdecfa9);
    HH(c, d, a, b, x[7], S33, 0xf6bb4b60);
    HH(b, c, d, a, x[10], S34, 0xbebfbc70);
    HH(a, b, c, d, x[13], S31, 0x289b7ec6);
    HH(d, a, b, c, x[0], S32, 0xeaa127fa);
    HH(c, d, a, b, x[3], S33, 0xd4ef3085);
    HH(b, c, d, a, x[6], S34, 0x04881d05);
    HH(a, b, c, d, x[9], S31, 0xd9d4d039);
    HH(d, a, b, c, x[12], S32, 0xe6db99e5);
    HH(c, d, a, b, x[15], S33, 0x1fa27cf8);
    HH(b, c, d, a, x[2], S34, 0xc4ac5665);

    II(a, b, c, d, x[0], S41, 0xf4292244);
    II(d, a, b, c, x[7], S42, 0x432aff97);
    II(c, d, a, b, x[14], S43, 0xab9423a7);
    II(b, c, d, a, x[5], S44, 0xfc93a039);
    II(a, b, c, d, x[12], S41, 0x655b59c3);
    II(d, a, b, c, x[3], S42, 0x8f0ccc92);
    II(c, d, a, b, x[10], S43, 0xffeff47d);
    II(b, c, d, a, x[1], S44, 0x85845dd1);
    II(a, b, c, d, x[8], S41, 0x6fa87e4f);
    II(d, a, b, c, x[15], S42, 0xfe2ce6e0);
    II(c, d, a, b, x[6], S43, 0xa3014314);
    II(b, c, d, a, x[13], S44, 0x4e0811a1);
    II(a, b, c, d, x[4], S41, 0xf7537e82);
    II(d, a, b, c, x[11], S42, 0xbd3af235);
    II(c, d, a, b, x[2], S43, 0x2ad7d2bb);
    II(b, c, d, a, x[9], S44, 0xeb86d391);

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void md5::Encode(unsigned char* out, unsigned int* in, unsigned int length) {
    for (unsigned int i = 0, j = 0; j + 3 < length; ++i, j += 4) {
        out[j] = static_cast<unsigned char>(in[i] & 0xff);
        out[j + 1] = static_cast<unsigned char>((in[i] >> 8) & 0xff);
        out[j + 2] = static_cast<unsigned char>((in[i] >> 16) & 0xff);
        out[j + 3] = static_cast<unsigned char>((in[i] >> 24) & 0xff);
    }
}

void md5::Decode(unsigned int* out, unsigned char* in, unsigned int length) {
    for (unsigned int i = 0, j = 0; j + 3 < length; ++i, j += 4) {
        out[i] = static_cast<unsigned int>(in[j]) | (static_cast<unsigned int>(in[j + 1]) << 8) |
                 (static_cast<unsigned int>(in[j + 2]) << 16) |
                 (static_cast<unsigned int>(in[j + 3]) << 24);
    }
}

const char* PrintMD5(unsigned char* digest) {
    return print_digest(digest, 0xFF);
}

const char* PrintMD5_Masked(unsigned char* digest) {
    return print_digest(digest, 0xFC);
}

const char* MD5BinData(unsigned char* data, unsigned long length) {
    if (!data) return nullptr;
    md5 ctx;
    digest_bytes(ctx, data, length);
    return PrintMD5(ctx.digest);
}

const char* MD5String(const char* s) {
    if (!s) return nullptr;
    return MD5BinData(reinterpret_cast<unsigned char*>(const_cast<char*>(s)), std::strlen(s));
}

const char* MD5String_Masked(const char* s) {
    if (!s) return nullptr;
    md5 ctx;
    digest_bytes(ctx, reinterpret_cast<unsigned char*>(const_cast<char*>(s)), std::strlen(s));
    return PrintMD5_Masked(ctx.digest);
}

const char* MD5File(const char* path) {
    if (!path) return nullptr;
    FILE* file = fs::zo_fopen(path, "rb");
    if (!file) return nullptr;

    md5 ctx;
    unsigned char chunk[10240];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
        ctx.Update(chunk, static_cast<unsigned int>(n));
    }
    // A read error ends the loop just like the end of the file does; a digest
    // of a partial file would be silently wrong, so report it as a failure.
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) return nullptr;

    ctx.Finalize();
    return PrintMD5(ctx.digest);
}

char* MD5_32_to_16(char* hex) {
    if (!hex || std::strlen(hex) < 24) return hex;
    std::memmove(hex, hex + 8, 16);
    hex[16] = '\0';
    return hex;
}

}  // namespace zo
