// The compiler's check of printf-style formats. On mingw-w64 plain "printf" means the rules of
// the Microsoft runtime (no %zu, no %lld), while the program's printf family follows C99 there
// as well (libstdc++ selects the mingw-w64 implementation): "gnu_printf" checks against that.
#pragma once

#ifdef __MINGW32__
#define VAROFT_PRINTF_FORMAT(string, first) __attribute__((format(gnu_printf, string, first)))
#else
#define VAROFT_PRINTF_FORMAT(string, first) __attribute__((format(printf, string, first)))
#endif
