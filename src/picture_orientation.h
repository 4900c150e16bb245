// Pictures seen upright: how a stream's display matrix turns its pictures.
// (The transform itself, getUprightImage, is exported from ff_tools.h.)
#pragma once

#include "movie_info.h"

struct AVStream;

namespace ff {

// How `st`'s pictures are turned upright, given its display rotation in
// degrees (as the probe records it) and its display matrix, if any. Angles
// that are not quarter turns go to the nearest quarter turn.
Orientation orientation_of(const AVStream* st, double rotation);

}  // namespace ff
