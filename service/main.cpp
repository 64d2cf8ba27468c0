#include "service/run.h"

int main(int argc, char** argv) {
  return zq::devservice::run(argc, argv);
}
