// Conversion between Rational and FFmpeg's 32-bit AVRational (internal).
#pragma once

#include "rational.h"

extern "C" {
#include <libavutil/rational.h>
}

namespace ff {

// Each part keeps its low 32 bits; no reduction, no range check.
AVRational rational_convert(const Rational& r);
// Each part sign-extended to 64 bits; no reduction.
Rational rational_convert(const AVRational& r);

}  // namespace ff
