// Marks the declarations that form the library's public interface.
// The library is built with hidden visibility; only CLIPDEC_API names are exported.
#pragma once

#if defined(_WIN32)
#  if defined(CLIPDEC_BUILDING_LIBRARY)
#    define CLIPDEC_API __declspec(dllexport)
#  else
#    define CLIPDEC_API __declspec(dllimport)
#  endif
#else
#  define CLIPDEC_API __attribute__((visibility("default")))
#endif
