#include "no_throw.h"

namespace zq {

const char* currentException() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();  // lives as long as the handler that calls
  } catch (...) {
    return "not a std::exception";
  }
}

}  // namespace zq
