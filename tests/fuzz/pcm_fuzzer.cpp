// libFuzzer target: any bytes as PCM for the mixing and metering routines.
#include <cstddef>
#include <cstdint>

#include "fuzz_drivers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzdrive::pcm_bytes(data, size);
    return 0;
}
