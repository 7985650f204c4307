#pragma once
// Parts of the REST client that its source files share; not installed.

#include "yl/yl_rest.h"

// Initialises libcurl once per process and tells whether that worked. Safe from any thread: the
// first caller does the work and the others wait for it. Every path that makes a curl handle calls
// it first. libcurl is never cleaned up: other code of the host may be using it until exit.
bool ylEnsureCurlGlobalInit();

class YLRestClientFactory final : public IYLRestClientFactory {
 public:
  IYLRestClient* createRestClient(IYLAppFactory* appFactory, const YLRestGlobalSettings* settings,
                                  YLRestSession* session) override;
};

class YLErrorCatalogue final : public IYLErrorCatalogue {
 public:
  YLErrorRecord obtainErrorRecord(std::int32_t code) const override;
};

class YLErrorService final : public IYLErrorService {
 public:
  IYLErrorCatalogue* obtainErrorCatalogue() override { return &catalogue_; }

 private:
  YLErrorCatalogue catalogue_;
};
