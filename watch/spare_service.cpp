#include "watch/spare_service.h"

namespace qixx::watch {
namespace {

constinit int currentServiceHandle = 0;

}  // namespace

int ServiceHandle() {
  return currentServiceHandle;
}

void SetServiceHandle(int serviceHandle) {
  currentServiceHandle = serviceHandle;
}

}  // namespace qixx::watch
