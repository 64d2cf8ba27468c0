#include "perix/version.h"

namespace zq {

int PerixLibraryVersion() {
  return PERIX_VERSION_NUMBER;
}

}  // namespace zq
