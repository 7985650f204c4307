#pragma once
// YL_EXPORT marks what libyl lets out of its shared library. The library is built with hidden
// visibility, so a declaration without it stays inside; hosts see the mark as nothing special.
#if defined(YL_COMPILE_LIBRARY)
#define YL_EXPORT __attribute__((visibility("default")))
#else
#define YL_EXPORT
#endif
