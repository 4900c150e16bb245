// A host in miniature: only the installed public interface.
#include <clipdec/clipdec.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
    int failures = 0;
    const auto check = [&failures](bool ok, const char* what) {
        if (!ok) {
            std::fprintf(stderr, "consumer: %s failed\n", what);
            ++failures;
        }
    };

    const ff::Rational sum = ff::Rational(1, 6) + ff::Rational(1, 4);
    check(sum.num == 5 && sum.den == 12, "rational sum");
    check(ff::time_to_timestamp({1, 3}, {1, 90000}) == 30000, "time_to_timestamp");
    check(ff::Range({0, 1}, {5, 1}).intersects(ff::Range({4, 1}, {10, 1})), "range overlap");

    void* block = ff::mem_malloc(1920 * 1080 * 4, 16);
    check(block != nullptr && bg::mempool::is_alignment(block, 16), "pool block");
    ff::mem_free(block);
    ff::mem_collection(0);

    check(bg::time::cpu_msec_pts() > 0, "clock");

    const char* digest = zo::MD5String("abc");
    check(digest && std::strcmp(digest, "900150983cd24fb0d6963f7d28e17f72") == 0, "md5");
    std::free(const_cast<char*>(digest));

    if (failures == 0) std::printf("consumer: ok\n");
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
