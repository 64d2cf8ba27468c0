#include "no_throw.h"

namespace zq {

const char* currentException() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();  // valid until the calling handler ends
  } catch (...) {
    return "not a std::exception";
  }
}

}  // namespace zq
