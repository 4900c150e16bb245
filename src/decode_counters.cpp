#include "decode_counters.h"

namespace ff {

DecodeCounters& decode_counters() {
    static DecodeCounters counters;
    return counters;
}

}  // namespace ff
