#include "yl/yl_assert.h"

#include <cstdio>

namespace {

void writeToStandardError(const char* condition, const char* source) {
  std::fprintf(stderr, "debug assertion: %s (%s)\n", condition, source);
}

YLAssertionHandler currentHandler = &writeToStandardError;

}  // namespace

YLAssertionHandler ylSetAssertionHandler(YLAssertionHandler handler) {
  YLAssertionHandler previous = currentHandler;
  currentHandler = handler != nullptr ? handler : &writeToStandardError;
  return previous;
}

void ylReportAssertion(const char* condition, const char* source) {
  currentHandler(condition, source);
}
