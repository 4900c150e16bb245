#include "ffdecoder.h"

#include "ff_tools.h"
#include "ffdec_probe.h"

namespace ff {

MovieCtx* FFDecoder::probe(const char* path, std::atomic<bool>* cancel) { return probe_movie(path, cancel); }

void FFDecoder::memCollection(unsigned ms) { mem_collection(ms); }

}  // namespace ff
