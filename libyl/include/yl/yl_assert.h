#pragma once
// Debug assertions: a diagnostic that reports a condition and never stops anything.
//
// YL_ASSERT(condition, source) reports the condition's text and a source name through the
// installed handler when the condition is false, and then carries on: the caller always goes on to
// its orderly result. Reports are compiled in when YL_ENABLE_ASSERTIONS is defined (the dev and
// asan presets); otherwise the macro evaluates nothing.

#include "yl/yl_export.h"

using YLAssertionHandler = void (*)(const char* condition, const char* source);

// Installs the handler and returns the previous one. Null restores the default handler, which
// writes one line to standard error. Not synchronised: install it while no other call runs.
YL_EXPORT YLAssertionHandler ylSetAssertionHandler(YLAssertionHandler handler);

// Reports one failed condition through the installed handler.
YL_EXPORT void ylReportAssertion(const char* condition, const char* source);

#ifdef YL_ENABLE_ASSERTIONS
#define YL_ASSERT(condition, source) \
  ((condition) ? static_cast<void>(0) : ylReportAssertion(#condition, source))
#else
#define YL_ASSERT(condition, source) static_cast<void>(0)
#endif
