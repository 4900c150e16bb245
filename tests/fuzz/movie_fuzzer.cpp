// libFuzzer target: any bytes as a movie file, walked as a host would.
#include <cstddef>
#include <cstdint>

#include "fuzz_drivers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzdrive::movie_bytes(data, size);
    return 0;
}
