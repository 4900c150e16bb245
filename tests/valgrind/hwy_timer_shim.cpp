// Valgrind 3.19 cannot execute RDTSCP, which libhwy (loaded with FFmpeg's
// JPEG XL codec) runs while it is being loaded. Preloaded under valgrind only,
// this stands in for libhwy's three timer functions, answering from the
// monotonic clock. Built and used by scripts/valgrind.sh.
#include <chrono>
#include <cstdint>

namespace hwy {
namespace platform {

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
uint64_t TimerResolution() { return 1; }
double InvariantTicksPerSecond() { return 1e9; }

}  // namespace platform
}  // namespace hwy
