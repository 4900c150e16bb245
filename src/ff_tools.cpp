#include "ff_tools.h"

#include "ffdecoder.h"
#include "hw/hw_decoder.h"
#include "utils/mempool.h"

namespace ff {

std::atomic<int32_t> g_export_width{0};
std::atomic<int32_t> g_export_height{0};
std::atomic<int32_t> g_w_h_multi{0};

namespace {

// 32-bit products wrap like the host's own int arithmetic, without UB.
int32_t product32(int a, int b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

constexpr int32_t kPixels4K = 3840 * 2160;
constexpr int32_t kPixels1080p = 1920 * 1080;

}  // namespace

void* mem_malloc(int size, unsigned alignment) {
    if (size < 0) {
        return nullptr;
    }
    return bg::mempool::malloc(static_cast<unsigned>(size), alignment);
}

void mem_free(void* p) { bg::mempool::free(p); }

void mem_collection(unsigned ms) { bg::mempool::collection(ms); }

void setExportMVSize(int width, int height) {
    g_export_width.store(width);
    g_export_height.store(height);
    g_w_h_multi.store(product32(width, height));
}

int getImageDivider(MemoryMode mode, int width, int height) {
    const int32_t pixels = product32(width, height);
    switch (mode) {
        case MM_AUTO:
            return pixels >= kPixels4K ? 4 : pixels >= kPixels1080p ? 2 : 1;
        case MM_EXPORT: {
            const int32_t export_pixels = g_w_h_multi.load();
            if (export_pixels < 1 || pixels <= export_pixels) return 1;
            const int divider = static_cast<int>(static_cast<double>(pixels) / export_pixels + 0.5);
            return divider < 1 ? 1 : divider;
        }
        default:
            return 1;
    }
}

MovieCtx* getMovieInfo(const char* path, std::atomic<bool>* cancel) { return FFDecoder::probe(path, cancel); }

bool hw_enable_device(const char* name) { return HWDecoder::instance()->enable_device(name); }
void hw_disable() { HWDecoder::instance()->disable(); }
std::vector<const char*> hw_enum_devices() { return HWDecoder::instance()->enum_devices(); }

}  // namespace ff
