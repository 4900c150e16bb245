// Umbrella header: the whole public interface of the library.
#pragma once

#include "audio_mixer.h"
#include "clipdec_export.h"
#include "ff_tools.h"
#include "ffdecoder.h"
#include "ffdecoder2.h"
#include "frame_records.h"
#include "movie_info.h"
#include "range.h"
#include "rational.h"
#include "utils/bg_time.h"
#include "utils/fs.h"
#include "utils/mempool.h"
#include "utils/wave_files.h"
#include "utils/zo_encoding.h"
#include "utils/zo_md5.h"
#include "utils/zo_text.h"
