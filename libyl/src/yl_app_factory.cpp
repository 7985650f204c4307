#include "yl/yl_datetime.h"
#include "yl_rest_internal.h"

namespace {

class YLDateTimeFactory final : public IYLDateTimeFactory {
 public:
  YLDateTimeConverter* createDateTimeConverter() override { return new YLDateTimeConverter; }
};

// Stateless services behind one object, so that hosts and tests reach all of them the same way.
class YLAppFactory final : public IYLAppFactory {
 public:
  IYLRestClientFactory* obtainRestClientFactory() override { return &restClientFactory_; }
  IYLErrorService* obtainErrorService() override { return &errorService_; }
  IYLDateTimeFactory* obtainDateTimeFactory() override { return &dateTimeFactory_; }

 private:
  YLRestClientFactory restClientFactory_;
  YLErrorService errorService_;
  YLDateTimeFactory dateTimeFactory_;
};

}  // namespace

IYLAppFactory* YL::obtainAppFactory() {
  static YLAppFactory factory;
  return &factory;
}
