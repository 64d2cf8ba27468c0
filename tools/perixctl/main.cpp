#include "tools/perixctl/perixctl.h"

int main(int argc, char** argv) {
  return zq::ctl::runPerixctl(argc, argv);
}
